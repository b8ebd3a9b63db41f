/*
 * The host's interface to the virtual-channel plug-in: every function that
 * libNorvoCrewsVirtualChannel exports. Plain C, also usable from C++.
 *
 * The usual life cycle of a channel:
 *
 *     InitialiseChannel(append, NORVO_CHANNEL_CITRIX, my_context);
 *     ChannelActive(1);                   once the remote side can be reached
 *     ReceiveData(packet, length);        for each packet that arrives
 *     ...                                 append() is called for each packet to send
 *     ChannelActive(0);                   when the connection is lost (and 1 again later)
 *     Shutdown();                         at the end
 *
 * Threads. Any function may be called from any thread at any time, in any order, also before
 * InitialiseChannel and after Shutdown; each function documents what it then does, and whether it
 * can wait for other calls. No function throws, with one exception: InitialiseChannel,
 * PluginThreadCreate and WatchdogThreadCreate throw a C++ exception (std::system_error) when the
 * system cannot create a thread. If InitialiseChannel throws, the plug-in is unchanged. When memory
 * runs out, the data concerned is dropped with a log line.
 *
 * Callbacks run with no lock held that an exported function would wait for, so they may take the
 * host's own locks and call exported functions. Shutdown and InitialiseChannel are ignored inside a
 * window or seamless-mode callback, and so is ReceiveData if that callback was itself called from
 * within ReceiveData. A window or seamless-mode callback must not wait for a lock that the host
 * holds while calling Shutdown.
 *
 * Unloading. The library stays in memory once loaded; dlclose() is allowed but has no effect.
 *
 * The two watchdog functions have C++ names. For dlsym(), use NORVO_SYMBOL_WATCHDOG_THREAD_CREATE
 * and NORVO_SYMBOL_WATCHDOG_THREAD_DESTROY.
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

/* The channel's name, for transports that number or announce their channels by name. */
#define NORVO_CHANNEL_NAME "NRVOCW"

/* The levels of LogMessage_VDI. */
#define NORVO_LEVEL_EVENT 1
#define NORVO_LEVEL_TRACE 2
#define NORVO_LEVEL_NOTABLE 3
#define NORVO_LEVEL_WARNING 4
#define NORVO_LEVEL_ERROR 5
#define NORVO_LEVEL_FATAL 6

/*
 * Takes one outgoing packet of `length` bytes. `data` belongs to the plug-in and is valid during
 * the call only. `flag` is 1. `context` is what InitialiseChannel was given. The result is ignored.
 *
 * Called on a plug-in thread, one packet at a time and in order; further packets wait while it
 * runs. (The host's own AppendDataToBuffer calls it on their thread, with their flag.) May call any
 * exported function.
 *
 * The call may block, and should while the connection takes no more data: that is how the plug-in
 * knows to take no more from local processes. A callback with an unbounded queue only moves the
 * backlog into the host. 64 to 192 KiB of unsent data are enough to keep a fast connection busy.
 * Each call should return when the connection ends.
 */
typedef int (*AppendBufferFunc)(const void* data, uint32_t length, uintptr_t flag, void* context);

/* The session's window. The host sets all members; the plug-in passes them on unchanged. */
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

/* Returns 0 when the session is shown in seamless windows, else any other number. */
typedef int (*IsSeamlessModeFunc)(void);
typedef ICAWindowInfo (*GetWindowInfoFunc)(void);
/* Returns the local window that shows the remote window `serverWindow`, or null. */
typedef void* (*GetClientWindowHandleFromServerWindowHandleFunc)(void* serverWindow);

/* ---- The channel -------------------------------------------------------------------------- */

/*
 * Sets the channel up: stores callback, kind and context, and makes the channel of that kind with
 * its agent. If `append` is null, packets are dropped with a log line. With an unknown kind,
 * everything is stored but nothing is made.
 *
 * Further calls replace callback, kind and context. A channel that is set up is unchanged. After
 * Shutdown it gets a new agent, but a Citrix channel stays shut down. Waits for a concurrent
 * Shutdown.
 */
NORVO_EXPORT void InitialiseChannel(AppendBufferFunc append, uint32_t kind, void* context);

/*
 * Takes one received packet, which stays the caller's. A message that it completes is passed to the
 * agent before the function returns. Calls from several threads are serialised. This usually takes
 * microseconds, but a message that sets up a stream creates its segment, and one that ends a
 * connection waits for the threads that serve its streams. Do not call it on a UI thread.
 *
 * Returns 0 when the packet was taken, was dropped as broken (null, shorter than 24 bytes, wrong
 * lengths or version; the log says which), or was dropped because a TCP or VMware channel is not
 * active. Returns 0xFFFFFFFF on a Citrix channel after Shutdown, and before InitialiseChannel. With
 * any other unknown kind, returns that kind minus 1.
 */
NORVO_EXPORT uint32_t ReceiveData(unsigned char* data, uint32_t length);

/*
 * 1: the remote side can be reached. Packets are sent from now on, and the agent looks for its
 * peer. 0: it cannot. Waiting and later packets are dropped. Other values are ignored. Returns when
 * the agent has handled the change. Before InitialiseChannel it only opens or closes the gate for
 * outgoing packets. While another process's agent is active in the session, the agent stays idle,
 * and the log says so: call with 1 again later, for example every few seconds until a packet comes.
 */
NORVO_EXPORT void ChannelActive(uint32_t state);

/*
 * Passes a packet to the host's callback, on the calling thread, if the last ChannelActive was 1;
 * else drops it with a log line. `flag` is passed on as 0 or 1. Returns 0.
 */
NORVO_EXPORT uint32_t AppendDataToBuffer(const void* data, uint32_t length, int flag);

/*
 * Ends the channel: notifies the agent, ends it and its threads, and flushes the log. Returns when
 * that is done, even if the append callback does not return: after two seconds that call is
 * abandoned. Does nothing without an initialised channel, and little the second time.
 *
 * Afterwards a Citrix channel sends nothing and refuses all packets. A TCP channel sends and takes
 * nothing until it is set up and active again. The other two still pass packets while
 * ChannelActive(1) holds. To be sure that the append callback is no longer called, call
 * ChannelActive(0) first and let a running call return.
 */
NORVO_EXPORT void Shutdown(void);

/* The name under which the virtual channel is registered: "NRVOCW". Never freed. */
NORVO_EXPORT const char* getChannelName(void);

/* ---- What the plug-in asks the host ---------------------------------------------------------- */

/* Null removes the callback. At any time, also before InitialiseChannel. */
NORVO_EXPORT void SetIsSeamlessModeFunc(IsSeamlessModeFunc function);
NORVO_EXPORT void SetGetWindowInfoFunc(GetWindowInfoFunc function);
NORVO_EXPORT void SetGetClientWindowHandleFromServerWindowHandleFunc(
    GetClientWindowHandleFromServerWindowHandleFunc function);

/* The callback's result; without a callback -1, a record of zeros, and null, with a log line. */
NORVO_EXPORT int IsSeamlessMode_(void);
NORVO_EXPORT ICAWindowInfo GetICAWindowInfo_(void);
NORVO_EXPORT void* GetClientWindowHandleFromServerWindowHandle_(void* serverWindow);

/* ---- Services for the host; the plug-in itself does not use them -------------------------- */

/* A non-recursive mutex. MutexDestroy takes the handle, the others its address. */
typedef struct NorvoMutex* MutexHandle;

NORVO_EXPORT MutexHandle MutexCreate(void);
/*
 * Each of the three first makes the mutex if `*mutex` is null, also when several threads do so at
 * once. MutexLock of a mutex that the thread holds, MutexUnlock of one that it does not hold, and a
 * null `mutex` have no effect but a log line.
 */
NORVO_EXPORT void MutexLock(MutexHandle* mutex);
NORVO_EXPORT bool MutexTryLock(
    MutexHandle* mutex); /* true when the mutex was free and is now held */
NORVO_EXPORT void MutexUnlock(MutexHandle* mutex);
/* The mutex must be neither held nor waited for. Null: nothing. */
NORVO_EXPORT void MutexDestroy(MutexHandle mutex);

/*
 * Runs `entry` on a new thread, of which the plug-in keeps one: creating another before it is
 * destroyed ends the process. A null `entry` is refused with a log line.
 */
NORVO_EXPORT void PluginThreadCreate(void (*entry)(void));
/* Waits until the thread's function has returned; does nothing without one, or on the thread
   itself. */
NORVO_EXPORT void PluginThreadDestroy(void);

#define NORVO_SYMBOL_WATCHDOG_THREAD_CREATE "_Z20WatchdogThreadCreatePFvvE"
#define NORVO_SYMBOL_WATCHDOG_THREAD_DESTROY "_Z21WatchdogThreadDestroyv"

/*
 * Writes one line to the plug-in's log, ~/Library/Logs/norvouvdi/VirtualChannel.log. `level` is one
 * of NORVO_LEVEL_*; a line of another level is dropped. NORVO_VDI_LOG_LEVEL selects which are
 * written (README).
 */
NORVO_EXPORT void LogMessage_VDI(int level, const char* message);
/* NOLINTEND(modernize-*) */

#ifdef __cplusplus
} /* extern "C" */

/* The same for a second thread. */
NORVO_EXPORT void WatchdogThreadCreate(void (*entry)());
NORVO_EXPORT void WatchdogThreadDestroy();
#endif

#endif
