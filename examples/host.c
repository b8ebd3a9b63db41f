/* A host whose channel is its standard input and output: each packet after its length. */
#include <LanguageAbstraction.h>
#include <dlfcn.h>
#include <stdio.h>
#define PLUGIN(name) ((__typeof__(name)*)(uintptr_t)dlsym(plugin, #name))

static int append(const void* packet, uint32_t size, uintptr_t flag, void* output) {
    return fwrite(&size, 4, flag, output) && fwrite(packet, size, 1, output) && !fflush(output);
}

int main(void) {
    void* plugin = dlopen("libNorvoCrewsVirtualChannel.so.1", RTLD_NOW);
    if (!plugin) return puts(dlerror()), 1;
    __typeof__(ReceiveData)* receive = PLUGIN(ReceiveData);
    unsigned char packet[1500];
    uint32_t size;
    PLUGIN(InitialiseChannel)(append, NORVO_CHANNEL_TCP, stdout);
    PLUGIN(ChannelActive)(1);
    while (fread(&size, 4, 1, stdin) && size <= sizeof packet && fread(packet, size, 1, stdin))
        receive(packet, size);
    PLUGIN(Shutdown)();
}
