/* A host whose channel is its standard input and output: packets, which say their own length. */
#include <LanguageAbstraction.h>
#include <dlfcn.h>
#include <stdio.h>
#define PLUGIN(name) ((__typeof__(name)*)(uintptr_t)dlsym(plugin, #name))

static int append(const void* packet, uint32_t size, uintptr_t flag, void* output) {
    (void)flag; /* always 1 */
    return fwrite(packet, size, 1, output) == 1 && !fflush(output);
}

int main(void) {
    void* plugin = dlopen("libNorvoCrewsVirtualChannel.so.1", RTLD_NOW);
    if (!plugin) return puts(dlerror()), 1;
    __typeof__(ReceiveData)* receive = PLUGIN(ReceiveData);
    union {
        unsigned char bytes[1500];
        uint32_t words[6]; /* of the header; the fifth is the number of bytes behind it */
    } packet;
    PLUGIN(InitialiseChannel)(append, NORVO_CHANNEL_TCP, stdout);
    PLUGIN(ChannelActive)(1);
    while (fread(packet.words, 24, 1, stdin) && packet.words[4] <= sizeof packet - 24 &&
           fread(packet.bytes + 24, 1, packet.words[4], stdin) == packet.words[4])
        receive(packet.bytes, 24 + packet.words[4]);
    PLUGIN(Shutdown)();
}
