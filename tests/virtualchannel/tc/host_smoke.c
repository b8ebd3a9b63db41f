/*
 * A remote-desktop client in miniature: loads the plug-in library as a host does and calls every
 * function it exports.
 *
 *     host_smoke LIBRARY KIND
 *
 * Exits with 0 when every call did what the header says.
 */
#include "LanguageAbstraction.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int g_failures;

#define CHECK(condition)                                                      \
    do {                                                                      \
        if (!(condition)) {                                                   \
            fprintf(stderr, "line %d: not true: %s\n", __LINE__, #condition); \
            ++g_failures;                                                     \
        }                                                                     \
    } while (0)

/* The library's functions, under the types of the header. */
#define EACH_FUNCTION(X)                                  \
    X(InitialiseChannel)                                  \
    X(ReceiveData)                                        \
    X(ChannelActive)                                      \
    X(AppendDataToBuffer)                                 \
    X(Shutdown)                                           \
    X(getChannelName)                                     \
    X(SetIsSeamlessModeFunc)                              \
    X(SetGetWindowInfoFunc)                               \
    X(SetGetClientWindowHandleFromServerWindowHandleFunc) \
    X(IsSeamlessMode_)                                    \
    X(GetICAWindowInfo_)                                  \
    X(GetClientWindowHandleFromServerWindowHandle_)       \
    X(MutexCreate)                                        \
    X(MutexLock)                                          \
    X(MutexTryLock)                                       \
    X(MutexUnlock)                                        \
    X(MutexDestroy)                                       \
    X(PluginThreadCreate)                                 \
    X(PluginThreadDestroy)                                \
    X(LogMessage_VDI)

static struct {
#define DECLARE(name) __typeof__(&(name)) name; /* NOLINT(bugprone-macro-parentheses) */
    EACH_FUNCTION(DECLARE)
#undef DECLARE
    __typeof__(&PluginThreadCreate) WatchdogThreadCreate;
    __typeof__(&PluginThreadDestroy) WatchdogThreadDestroy;
} vc;

static void load_function(void* library, const char* symbol, void* target) {
    void* const found = dlsym(library, symbol);
    if (!found) {
        fprintf(stderr, "%s is not exported\n", symbol);
        exit(1);
    }
    memcpy(target, &found, sizeof found);
}

static void* load_library(const char* path) {
    void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        fprintf(stderr, "%s\n", dlerror());
        exit(1);
    }
#define LOAD(name) load_function(library, #name, &vc.name);
    EACH_FUNCTION(LOAD)
#undef LOAD
    load_function(library, NORVO_SYMBOL_WATCHDOG_THREAD_CREATE, &vc.WatchdogThreadCreate);
    load_function(library, NORVO_SYMBOL_WATCHDOG_THREAD_DESTROY, &vc.WatchdogThreadDestroy);
    return library;
}

/* ---- What the host lends ---- */

static unsigned g_appended;
static int g_context;

static int append(const void* data, uint32_t length, uintptr_t flag, void* context) {
    if (!data || length < 24 || flag > 1 || context != &g_context) return -1;
    __atomic_add_fetch(&g_appended, 1, __ATOMIC_SEQ_CST);
    return 0;
}

static int seamless(void) { return 0; }

static ICAWindowInfo window_info(void) {
    ICAWindowInfo info = {0};
    info.hwnd = &g_context;
    info.xWinWidth = 1920;
    info.yViewOffset = -3;
    return info;
}

static void* client_window(void* server) { return (char*)server + 1; }

static int g_threads;

static void thread_main(void) { __atomic_add_fetch(&g_threads, 1, __ATOMIC_SEQ_CST); }

/* ---- The calls ---- */

static void check_questions(void) {
    CHECK(vc.IsSeamlessMode_() == -1);
    vc.SetIsSeamlessModeFunc(seamless);
    vc.SetGetWindowInfoFunc(window_info);
    vc.SetGetClientWindowHandleFromServerWindowHandleFunc(client_window);
    CHECK(vc.IsSeamlessMode_() == 0);
    CHECK(vc.GetICAWindowInfo_().hwnd == &g_context);
    CHECK(vc.GetICAWindowInfo_().xWinWidth == 1920);
    CHECK(vc.GetICAWindowInfo_().yViewOffset == -3);
    CHECK(vc.GetClientWindowHandleFromServerWindowHandle_(&g_context) == (char*)&g_context + 1);
    vc.SetIsSeamlessModeFunc(NULL);
    CHECK(vc.IsSeamlessMode_() == -1);
}

static void check_mutexes(void) {
    MutexHandle lazy = NULL;
    MutexHandle made = vc.MutexCreate();
    MutexHandle* const each[] = {&lazy, &made};
    for (int i = 0; i < 2; ++i) {
        vc.MutexLock(each[i]);
        CHECK(!vc.MutexTryLock(each[i]));
        vc.MutexUnlock(each[i]);
        CHECK(vc.MutexTryLock(each[i]));
        vc.MutexUnlock(each[i]);
        vc.MutexDestroy(*each[i]);
    }
    vc.MutexDestroy(NULL);
}

static void check_threads(void) {
    vc.PluginThreadDestroy();
    vc.PluginThreadCreate(NULL);
    for (int i = 1; i <= 2; ++i) {
        vc.PluginThreadCreate(thread_main);
        vc.WatchdogThreadCreate(thread_main);
        vc.PluginThreadDestroy();
        vc.WatchdogThreadDestroy();
        CHECK(g_threads == 2 * i);
    }
}

/* A packet with the whole message "hi": header of six little-endian numbers, then the text. */
static unsigned char g_packet[26] = {0x5B, 0, 0x5B, 0, 1, 0, 0, 0,  1, 0, 0, 0,   9,
                                     0,    0, 0,    2, 0, 0, 0, 26, 0, 0, 0, 'h', 'i'};

static void check_channel(uint32_t kind) {
    CHECK(vc.ReceiveData(g_packet, sizeof g_packet) == 0xFFFFFFFFu);
    vc.InitialiseChannel(append, 7, &g_context);
    CHECK(vc.ReceiveData(g_packet, sizeof g_packet) == 6);
    vc.InitialiseChannel(append, kind, &g_context);
    vc.ChannelActive(1);
    CHECK(vc.ReceiveData(g_packet, sizeof g_packet) == 0);
    const unsigned before = __atomic_load_n(&g_appended, __ATOMIC_SEQ_CST);
    CHECK(vc.AppendDataToBuffer(g_packet, sizeof g_packet, 1) == 0);
    CHECK(__atomic_load_n(&g_appended, __ATOMIC_SEQ_CST) > before);
    vc.Shutdown();
    CHECK(vc.ReceiveData(g_packet, sizeof g_packet) ==
          (kind == NORVO_CHANNEL_CITRIX ? 0xFFFFFFFFu : 0u));
    vc.InitialiseChannel(append, kind, &g_context);
    vc.ChannelActive(1);
}

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    void* const library = load_library(argv[1]);
    vc.LogMessage_VDI(5, "an error that the host has met");
    check_questions();
    check_mutexes();
    check_threads();
    check_channel((uint32_t)strtoul(argv[2], NULL, 10));
    /* Its threads run on, and keep their code. */
    CHECK(dlclose(library) == 0);
    CHECK(strcmp(vc.getChannelName(), "NRVOCW") == 0);
    return g_failures == 0 ? 0 : 1;
}
