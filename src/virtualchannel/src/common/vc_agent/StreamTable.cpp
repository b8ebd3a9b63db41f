#include "StreamTable.h"

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

void StreamTable::remove(std::string_view name) {
    OrderedLock lock(m_mutex, lock_order::streams);
    const auto found = m_streams.find(name);
    if (found != m_streams.end()) m_streams.erase(found);
}

std::vector<StreamPtr> StreamTable::snapshot() const {
    OrderedLock lock(m_mutex, lock_order::streams);
    return list();
}

std::vector<StreamPtr> StreamTable::close() {
    OrderedLock lock(m_mutex, lock_order::streams);
    m_closed = true;
    return list();
}

std::vector<StreamPtr> StreamTable::list() const {
    std::vector<StreamPtr> all;
    all.reserve(m_streams.size());
    for (const auto& [name, stream] : m_streams) all.push_back(stream);
    return all;
}

}  // namespace VirtualChannelAgent
