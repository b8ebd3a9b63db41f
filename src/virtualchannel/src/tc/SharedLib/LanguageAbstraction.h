/*
 * The host's side of the virtual-channel plug-in: every function that libNorvoCrewsVirtualChannel
 * exports. Plain C; a C++ host includes it as it stands.
 *
 * The usual life of a channel:
 *
 *     InitialiseChannel(append, NORVO_CHANNEL_CITRIX, my_context);
 *     ChannelActive(1);                   once the remote side can be reached
 *     ReceiveData(packet, length);        for each packet that arrives
 *     ...                                 append() is called for each packet to send
 *     ChannelActive(0);                   when the connection is lost (and 1 again later)
 *     Shutdown();                         at the end
 *
 * Threads. Any function may be called from any thread at any time, in any order, also before
 * InitialiseChannel and after Shutdown; what a function does then is said with it. Calls that can
 * wait for others say so. No function throws, with one exception: where a thread has to be started
 * and the system has none to give, a C++ exception (std::system_error) leaves InitialiseChannel,
 * PluginThreadCreate or WatchdogThreadCreate. After an InitialiseChannel that threw, the plug-in
 * is as before the call. What there is no memory for is dropped with a log line.
 *
 * Callbacks are called with no lock of the plug-in held that another exported function would wait
 * for, so they may take the host's own locks and call exported functions. Shutdown and
 * InitialiseChannel are ignored inside a window or seamless-mode callback, and so is ReceiveData
 * when the callback itself comes out of a call of ReceiveData. A window or seamless-mode callback
 * must not wait for a lock that the host holds while it calls Shutdown.
 *
 * Unloading. The library stays in memory once loaded: dlclose() is allowed and does nothing.
 *
 * The two watchdog functions have C++ names, as given by NORVO_SYMBOL_WATCHDOG_THREAD_CREATE and
 * NORVO_SYMBOL_WATCHDOG_THREAD_DESTROY for dlsym().
 */
#ifndef NORVO_LANGUAGE_ABSTRACTION_H
#define NORVO_LANGUAGE_ABSTRACTION_H

#include <stdbool.h>
#include <stdint.h>

#define NORVO_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* NOLINTBEGIN(modernize-*): this is C */

/* The kinds of channel, for InitialiseChannel. */
#define NORVO_CHANNEL_CITRIX 1u /* packets of up to 4992 bytes */
#define NORVO_CHANNEL_VMWARE 2u /* packets of up to 1000 bytes */
#define NORVO_CHANNEL_RDP 3u    /* packets of up to 1500 bytes */
#define NORVO_CHANNEL_TCP 4u    /* packets of up to 1500 bytes */

/*
 * Takes one outgoing packet of `length` bytes. `data` belongs to the plug-in and is valid during
 * the call only. `flag` is 1. `context` is what InitialiseChannel was given. The result is ignored.
 *
 * Called on a thread of the plug-in, one packet at a time and in order; while it runs, further
 * packets wait. May call any exported function.
 *
 * The call may block, and should while the connection takes no more: that is how the plug-in learns
 * to take no more from local processes. A callback that puts packets into a queue without end only
 * moves the queue into the host. 64 to 192 KiB that have not left are enough to keep a fast
 * connection busy; each call should end when the connection does.
 */
typedef int (*AppendBufferFunc)(const void* data, uint32_t length, uintptr_t flag, void* context);

/* The session's window. All members are the host's; the plug-in passes them on unchanged. */
typedef struct ICAWindowInfo {
    void* hwnd;
    uint32_t reserved;
    uint32_t xWinWidth;
    uint32_t yWinHeight;
    uint32_t xViewWidth;
    uint32_t yViewHeight;
    int32_t xViewOffset;
    int32_t yViewOffset;
    uint32_t padding;
} ICAWindowInfo;

/* 0 when the session is shown in seamless windows, any other number when not. */
typedef int (*IsSeamlessModeFunc)(void);
typedef ICAWindowInfo (*GetWindowInfoFunc)(void);
/* The local window that shows the remote window `serverWindow`, or null. */
typedef void* (*GetClientWindowHandleFromServerWindowHandleFunc)(void* serverWindow);

/* ---- The channel -------------------------------------------------------------------------- */

/*
 * Sets the channel up: remembers the callback, the kind and the context, and makes the channel of
 * that kind with its agent. `append` may be null: packets are then dropped with a log line. With an
 * unknown kind, everything is remembered and nothing is made.
 *
 * Again: replaces callback, kind and context. A channel that is set up stays as it is. After
 * Shutdown it gets a new agent; the Citrix kind stays shut down all the same. Waits for a Shutdown
 * that is under way.
 */
NORVO_EXPORT void InitialiseChannel(AppendBufferFunc append, uint32_t kind, void* context);

/*
 * Takes in one received packet, which stays the caller's. What it completes is handed to the agent
 * before the function returns; calls from several threads are served one after the other.
 * Usually that takes microseconds. A message that sets up a stream makes its segment in here, and
 * one that ends a connection waits for the threads that serve its streams. A thread that draws must
 * not call it.
 *
 * 0: taken, or dropped as broken (null, shorter than 24 bytes, wrong lengths or version; the log
 * says which), or dropped because a TCP or VMware channel is not active. 0xFFFFFFFF: a Citrix
 * channel after Shutdown, and any call before InitialiseChannel. With another unknown kind: that
 * kind minus 1.
 */
NORVO_EXPORT uint32_t ReceiveData(unsigned char* data, uint32_t length);

/*
 * 1: the remote side can be reached; packets go out from now on, and the agent looks for its peer.
 * 0: it cannot; packets that still wait or come are dropped. Other values are ignored. Returns when
 * the agent has taken note. Before InitialiseChannel it only lets packets through or not.
 */
NORVO_EXPORT void ChannelActive(uint32_t state);

/*
 * Hands a packet to the host's callback, on the calling thread, if ChannelActive(1) was the last
 * word; else drops it with a log line. `flag` is passed on as 0 or 1. Always 0.
 */
NORVO_EXPORT uint32_t AppendDataToBuffer(const void* data, uint32_t length, int flag);

/*
 * Ends the channel: tells the agent, ends it and its threads, and writes the log out. Returns when
 * that is done, also while the append callback does not return: that call is then left behind after
 * two seconds. Nothing without an initialised channel, and little the second time.
 *
 * Afterwards a Citrix channel sends nothing and refuses all packets, a TCP channel sends and takes
 * nothing until it is set up and active again, and the two others go on passing packets while
 * ChannelActive(1) holds. To be sure that the append callback is not called any more, call
 * ChannelActive(0) first and let a call that is under way return.
 */
NORVO_EXPORT void Shutdown(void);

/* The name under which the virtual channel is registered: "NRVOCW". Never freed. */
NORVO_EXPORT const char* getChannelName(void);

/* ---- What the host can be asked ----------------------------------------------------------- */

/* Null withdraws the callback again. At any time, also before InitialiseChannel. */
NORVO_EXPORT void SetIsSeamlessModeFunc(IsSeamlessModeFunc function);
NORVO_EXPORT void SetGetWindowInfoFunc(GetWindowInfoFunc function);
NORVO_EXPORT void SetGetClientWindowHandleFromServerWindowHandleFunc(
    GetClientWindowHandleFromServerWindowHandleFunc function);

/* The callback's answer; without a callback -1, a record of zeros, and null, with a log line. */
NORVO_EXPORT int IsSeamlessMode_(void);
NORVO_EXPORT ICAWindowInfo GetICAWindowInfo_(void);
NORVO_EXPORT void* GetClientWindowHandleFromServerWindowHandle_(void* serverWindow);

/* ---- Services for the host; the plug-in itself does not use them -------------------------- */

/* A mutex, not recursive. MutexDestroy takes the handle, the others its address. */
typedef struct NorvoMutex* MutexHandle;

NORVO_EXPORT MutexHandle MutexCreate(void);
/*
 * Each of the three makes the mutex first when `*mutex` is null, also when several threads do so at
 * once. Locking a mutex that the thread holds already, and unlocking one that it does not hold,
 * change nothing and leave a log line; so does a null `mutex`.
 */
NORVO_EXPORT void MutexLock(MutexHandle* mutex);
NORVO_EXPORT bool MutexTryLock(
    MutexHandle* mutex); /* true when the mutex was free and is now held */
NORVO_EXPORT void MutexUnlock(MutexHandle* mutex);
/* The mutex must be neither held nor waited for. Null: nothing. */
NORVO_EXPORT void MutexDestroy(MutexHandle mutex);

/*
 * Runs `entry` on a new thread; the plug-in keeps one such thread. While it has not been destroyed,
 * creating another one ends the process. A null `entry` is refused with a log line.
 */
NORVO_EXPORT void PluginThreadCreate(void (*entry)(void));
/* Waits until the thread's function has returned; nothing when there is none, or on the thread
   itself. */
NORVO_EXPORT void PluginThreadDestroy(void);

#define NORVO_SYMBOL_WATCHDOG_THREAD_CREATE "_Z20WatchdogThreadCreatePFvvE"
#define NORVO_SYMBOL_WATCHDOG_THREAD_DESTROY "_Z21WatchdogThreadDestroyv"

/*
 * Writes one line to the plug-in's log, ~/Library/Logs/norvouvdi/VirtualChannel.log. `level`: 1 an
 * event, 2 a trace, 3 notable, 4 a warning, 5 an error, 6 fatal; other levels are dropped. Which of
 * them are written depends on NORVO_VDI_LOG_LEVEL (README).
 */
NORVO_EXPORT void LogMessage_VDI(int level, const char* message);
/* NOLINTEND(modernize-*) */

#ifdef __cplusplus
} /* extern "C" */

/* The same as the plug-in thread, for a second one. */
NORVO_EXPORT void WatchdogThreadCreate(void (*entry)());
NORVO_EXPORT void WatchdogThreadDestroy();
#endif

#endif
