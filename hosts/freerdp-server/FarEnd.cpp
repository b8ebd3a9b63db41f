#include "FarEnd.h"

#include <winpr/synch.h>

namespace hosts {

namespace {

constexpr std::size_t kMostInBox = 64u << 10;

const Plugin& initialised(const Plugin& plugin, AppendBufferFunc append, void* context) {
    plugin.InitialiseChannel(append, NORVO_CHANNEL_RDP, context);
    return plugin;
}

}  // namespace

FarEnd::FarEnd(const std::string& library)
    : m_plugin(library),
      m_thread(initialised(m_plugin, &FarEnd::append, this), kRdpPacket, m_idleWatch) {}

FarEnd::~FarEnd() {
    leave(m_channel);
    m_thread.end();
}

void FarEnd::join(HANDLE channel, HANDLE outgoing) {
    {
        std::lock_guard lock(m_mutex);
        m_channel = channel;
        m_outgoing = outgoing;
        m_box.clear();
        m_inBox = 0;
    }
    m_room.notify_all();
    m_thread.setActive(false);
    m_thread.setActive(true);
}

void FarEnd::leave(HANDLE channel) {
    {
        std::lock_guard lock(m_mutex);
        if (!m_channel || m_channel != channel) return;
        m_channel = nullptr;
    }
    m_room.notify_all();
    m_thread.setActive(false);
}

void FarEnd::send(HANDLE channel) {
    {
        std::lock_guard lock(m_mutex);
        if (m_channel != channel) return;
        ResetEvent(m_outgoing);
        for (auto& packet : m_box) {
            ULONG written = 0;
            WTSVirtualChannelWrite(channel, reinterpret_cast<PCHAR>(packet.data()),
                                   static_cast<ULONG>(packet.size()), &written);
        }
        m_box.clear();
        m_inBox = 0;
    }
    m_room.notify_all();
}

void FarEnd::receive(HANDLE channel) {
    std::vector<unsigned char> message;
    ULONG size = 0;
    while (WTSVirtualChannelRead(channel, 0, nullptr, 0, &size) && size > 0) {
        message.resize(size);
        if (!WTSVirtualChannelRead(channel, 0, reinterpret_cast<PCHAR>(message.data()), size,
                                   &size))
            return;
        m_thread.receive(message);
    }
}

int FarEnd::append(const void* data, std::uint32_t length, std::uintptr_t, void* self) {
    auto& end = *static_cast<FarEnd*>(self);
    const auto* bytes = static_cast<const unsigned char*>(data);
    end.m_idleWatch.noteSent();
    std::unique_lock lock(end.m_mutex);
    end.m_room.wait(lock, [&] { return !end.m_channel || end.m_inBox < kMostInBox; });
    if (!end.m_channel) return 0;
    end.m_box.emplace_back(bytes, bytes + length);
    end.m_inBox += length;
    SetEvent(end.m_outgoing);
    return 0;
}

}  // namespace hosts
