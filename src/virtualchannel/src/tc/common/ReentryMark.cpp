#include "ReentryMark.h"

namespace NorvoVirtualChannel::tc {

namespace {
thread_local const ReentryMark* t_innermost = nullptr;
}

ReentryMark::ReentryMark(const void* owner) : m_owner(owner), m_outer(t_innermost) {
    t_innermost = this;
}

ReentryMark::~ReentryMark() { t_innermost = m_outer; }

bool ReentryMark::isSet(const void* owner) {
    const ReentryMark* mark = t_innermost;
    while (mark && mark->m_owner != owner) mark = mark->m_outer;
    return mark != nullptr;
}

}  // namespace NorvoVirtualChannel::tc
