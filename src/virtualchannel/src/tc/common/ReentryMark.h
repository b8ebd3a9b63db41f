#pragma once

namespace NorvoVirtualChannel::tc {

// Marks the calling thread as being inside `owner` while it lives. Code can thus tell a re-entrant
// call from another thread's. A thread's marks must end in reverse order.
class ReentryMark {
public:
    explicit ReentryMark(const void* owner);
    ~ReentryMark();
    ReentryMark(const ReentryMark&) = delete;
    ReentryMark& operator=(const ReentryMark&) = delete;

    // Whether the calling thread is inside `owner`.
    static bool isSet(const void* owner);

private:
    const void* const m_owner;
    const ReentryMark* const m_outer;
};

}  // namespace NorvoVirtualChannel::tc
