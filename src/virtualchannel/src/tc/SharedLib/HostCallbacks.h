#pragma once

#include <atomic>
#include <cstdint>
#include <deque>

#include "LanguageAbstraction.h"
#include "LocalMutex.h"

namespace NorvoVirtualChannel::tc {

// The host's callbacks, and the gate for outgoing packets. One per process. Thread-safe; no lock is
// held while a callback runs.
class HostCallbacks {
public:
    static HostCallbacks& GetInstance();

    HostCallbacks() = default;
    HostCallbacks(const HostCallbacks&) = delete;
    HostCallbacks& operator=(const HostCallbacks&) = delete;

    struct Append {
        AppendBufferFunc function;
        void* context;
    };
    // Null removes the callback. A call of the old one may still be running on return. Returns the
    // old one (null: none), for restoreAppendBuffer().
    const Append* setAppendBuffer(AppendBufferFunc append, void* context);
    void restoreAppendBuffer(const Append* append) { m_append = append; }
    void setActive(bool active) { m_active = active; }
    // Passes the bytes to the host's callback if the gate is open; else drops them with a log line.
    // Returns 0.
    std::uint32_t appendData(const void* data, std::uint32_t length, bool flag);

    void setIsSeamlessMode(IsSeamlessModeFunc function) { m_isSeamlessMode = function; }
    void setGetWindowInfo(GetWindowInfoFunc function) { m_getWindowInfo = function; }
    void setGetClientWindow(GetClientWindowHandleFromServerWindowHandleFunc function) {
        m_getClientWindow = function;
    }

    // The callbacks' results; without a callback -1, zeros and null.
    int isSeamlessMode() const;
    ICAWindowInfo windowInfo() const;
    void* clientWindow(void* serverWindow) const;

    // Whether the calling thread is inside one of these three callbacks.
    static bool isInsideQueryCallback();

private:
    // Read for every packet, so without a lock. Earlier ones are kept: a thread may be about to
    // call them.
    std::atomic<const Append*> m_append{nullptr};
    VDIFrameworkCommon::LocalMutex m_mutex;
    std::deque<Append> m_appends NORVO_GUARDED_BY(m_mutex);
    std::atomic<bool> m_active{false};
    std::atomic<IsSeamlessModeFunc> m_isSeamlessMode{nullptr};
    std::atomic<GetWindowInfoFunc> m_getWindowInfo{nullptr};
    std::atomic<GetClientWindowHandleFromServerWindowHandleFunc> m_getClientWindow{nullptr};
};

}  // namespace NorvoVirtualChannel::tc
