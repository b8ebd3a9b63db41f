/* FreeRDP looks for add-ins only in one system folder. Preloaded into a client, this loads ours
   from NORVO_TEST_ADDIN. */
#include <dlfcn.h>
#include <freerdp/addin.h>
#include <stdlib.h>
#include <string.h>

PVIRTUALCHANNELENTRY freerdp_load_channel_addin_entry(LPCSTR name, LPCSTR subsystem, LPCSTR type,
                                                      DWORD flags) {
    __typeof__(freerdp_load_channel_addin_entry)* next;
    if (strcmp(name, "NRVOCW") == 0 && (flags & FREERDP_ADDIN_CHANNEL_ENTRYEX) != 0) {
        void* addIn = dlopen(getenv("NORVO_TEST_ADDIN"), RTLD_NOW);
        return addIn ? (PVIRTUALCHANNELENTRY)(UINT_PTR)dlsym(addIn, "VirtualChannelEntryEx") : NULL;
    }
    next = (__typeof__(next))(UINT_PTR)dlsym(RTLD_NEXT, "freerdp_load_channel_addin_entry");
    return next(name, subsystem, type, flags);
}
