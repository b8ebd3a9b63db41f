#pragma once

namespace NorvoVirtualChannel::tc {

// Says, while it lives, that the calling thread is inside `owner`: code that the thread gets to
// from there can tell a call that has come back in from one of another thread. Marks of a thread
// end in the reverse order of their making.
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
