#include "StreamTable.h"

#include <utility>

namespace VirtualChannelAgent {

using lock_order::OrderedLock;

StreamPtr StreamTable::find(std::string_view name) const {
    OrderedLock lock(m_mutex, lock_order::streams);
    const auto found = m_streams.find(name);
    return found == m_streams.end() ? nullptr : found->second;
}

bool StreamTable::insert(const StreamPtr& stream) {
    OrderedLock lock(m_mutex, lock_order::streams);
    return !m_closed && m_streams.emplace(stream->name(), stream).second;
}

std::vector<StreamPtr> StreamTable::snapshot() const {
    OrderedLock lock(m_mutex, lock_order::streams);
    std::vector<StreamPtr> all;
    all.reserve(m_streams.size());
    for (const auto& [name, stream] : m_streams) all.push_back(stream);
    return all;
}

void StreamTable::move(std::string_view name, Streams& to) {
    OrderedLock lock(m_mutex, lock_order::streams);
    const auto found = m_streams.find(name);
    if (found != m_streams.end()) to.insert(m_streams.extract(found));
}

StreamTable::Streams StreamTable::close() {
    OrderedLock lock(m_mutex, lock_order::streams);
    m_closed = true;
    return std::exchange(m_streams, {});
}

}  // namespace VirtualChannelAgent
