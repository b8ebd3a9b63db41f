// vcctl decode: prints a capture packet by packet and message by message.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <iterator>
#include <memory>
#include <string>

#include "Capture.h"
#include "CommandError.h"
#include "CommandLine.h"
#include "Output.h"
#include "Packets.h"
#include "StopSignal.h"
#include "VCMessage.h"

namespace vcctl {

namespace {

struct DecodeOptions {
    std::string file;
    bool packets = false;
    unsigned int bytes = 32;
};

const char* messageName(unsigned int type) {
    static constexpr const char* names[] = {"CTL_NOOP",        "CTL_MESSAGE_TYPE_NOTSUPPORTED",
                                            "CTL_CONNECT",     "CTL_CONNECT_READY",
                                            "CTL_CONNECTED",   "CTL_DISCONNECT",
                                            "CTL_S_CREATE",    "CTL_S_CREATED",
                                            "type 8 (unused)", "CTL_S_ROUTE",
                                            "CTL_S_ERROR",     "CTL_LOGFLUSH"};
    return type < std::size(names) ? names[type] : "unsupported type";
}

std::string fieldsOf(const VirtualChannelAgent::VCMessage& message, unsigned int mostBytes) {
    std::string text;
    const auto add = [&](const char* name, const std::string& value) {
        text += fmt::format(" {}={}", name, value);
    };
    const auto quoted = [&](const std::string& value) { return '"' + readable(value, 200) + '"'; };
    if (message.hasUnsupportedMessageType()) {
        add("unsupported", std::to_string(message.getUnsupportedMessageType()));
    }
    if (message.hasStreamName()) add("stream", quoted(message.getStreamName()));
    if (message.hasStreamType()) {
        const unsigned int type = message.getStreamType();
        add("type", type == 0 ? "READ" : type == 1 ? "WRITE" : std::to_string(type));
    }
    if (message.hasStreamSize()) add("size", std::to_string(message.getStreamSize()));
    if (message.hasSupportedStreams()) add("streams", quoted(message.getSupportedStreams()));
    if (message.hasChannelVersion()) add("channel-version", quoted(message.getChannelVersion()));
    if (message.hasInternalVersion()) add("internal-version", quoted(message.getInternalVersion()));
    if (message.hasClientVersion()) add("client-version", quoted(message.getClientVersion()));
    if (message.hasRouteData()) {
        char* data = nullptr;
        const unsigned int length = message.getRouteData(&data);
        add("data", fmt::format("{} bytes \"{}\"", length, readable({data, length}, mostBytes)));
    }
    return text;
}

// One direction of the capture.
class Decoder : public NorvoVirtualChannel::PacketizationObserver {
public:
    Decoder(const char* arrow, const DecodeOptions& options)
        : m_arrow(arrow), m_options(options), m_packets(this, 0x7fffffff) {}

    void packet(CapturedPacket& captured) {
        m_time = captured.nanoseconds;
        NorvoVirtualChannel::Packet packet(captured.bytes.data(),
                                           static_cast<unsigned int>(captured.bytes.size()));
        if (!packet.isPacketValid()) {
            line(fmt::format("broken packet of {} bytes", captured.bytes.size()));
            return;
        }
        if (m_options.packets) {
            line(fmt::format("packet {} {}/{} payload {} of message {}", packet.GetPacketID(),
                             packet.GetPacketSequence(), packet.GetTotalPackets(),
                             packet.GetPayloadSize(),
                             packet.GetMessageSize() - NorvoVirtualChannel::kPacketHeaderSize));
        }
        m_packets.EnqueuePacket(&packet);
    }

    void OnFullPacketReceived(const void* data, unsigned int size) override {
        VirtualChannelAgent::VCMessage message;
        if (!message.parseFromArray(data, size)) {
            line(fmt::format("message of {} bytes that cannot be read: \"{}\"", size,
                             readable({static_cast<const char*>(data), size}, m_options.bytes)));
            return;
        }
        line(fmt::format("{}{}", messageName(message.rawMessageType()),
                         fieldsOf(message, m_options.bytes)));
    }

private:
    void line(const std::string& text) const {
        const auto seconds = static_cast<std::time_t>(m_time / 1'000'000'000);
        print(fmt::format("{:%H:%M:%S}.{:06} {} {}\n", fmt::gmtime(seconds),
                          m_time / 1000 % 1'000'000, m_arrow, text));
    }

    const char* m_arrow;
    const DecodeOptions& m_options;
    std::uint64_t m_time = 0;
    NorvoVirtualChannel::Packetization m_packets;
};

int runDecode(const DecodeOptions& options) {
    StopSignal::release();
    CaptureReader reader(options.file);
    Decoder inbound("<-", options);
    Decoder outbound("->", options);
    while (auto packet = reader.next()) {
        (packet->direction == Direction::Outbound ? outbound : inbound).packet(*packet);
    }
    flushOut();
    return kOk;
}

}  // namespace

void addDecodeCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<DecodeOptions>();
    Command command(app, "decode", "Prints the packets and messages of a capture, one a line");
    command.argument("file", options->file, "The capture, or - for standard input").required();
    command.flag("--packets", options->packets, "Print each packet, too");
    command.argument("--bytes", options->bytes, "How many bytes of data to show per message")
        .showDefault();
    command.run([=, &exitCode] { exitCode = runDecode(*options); });
}

}  // namespace vcctl
