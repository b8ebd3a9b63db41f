// A routed message from its values to bytes, and from bytes to values that the receiver owns.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Harness.h"
#include "RouteMessage.pb.h"
#include "VCMessage.h"

namespace {

using VirtualChannelAgent::VCMessage;

const std::string kStreamName = "Generic";
constexpr unsigned int kStreamType = 1;
constexpr unsigned int kStreamSize = 65536;

// A received message's values; the data is owned, for the stream's queue.
struct Received {
    std::string name;
    unsigned int type = 0;
    unsigned int size = 0;
    std::string data;
};

void encode(VCMessage& message, const std::string& data) {
    message.setMessageType(VirtualChannelAgent::CTL_S_ROUTE);
    message.setStreamName(kStreamName);
    message.setStreamType(kStreamType);
    message.setStreamSize(kStreamSize);
    message.setRouteData(data.data(), static_cast<unsigned int>(data.size()));
}

Received decode(const VCMessage& message) {
    Received received;
    received.name = message.getStreamName();
    received.type = message.getStreamType();
    received.size = message.getStreamSize();
    char* bytes = nullptr;
    const unsigned int length = message.getRouteData(&bytes);
    received.data.assign(bytes, length);
    return received;
}

// As the agent does it: sent and read in place.
void throughMessage(const std::string& data) {
    VCMessage sent;
    encode(sent, data);
    const auto wire = sent.wireBytes();
    VCMessage received;
    if (!received.parseInPlace(wire.data(), static_cast<unsigned int>(wire.size()))) std::abort();
    bench::doNotOptimize(decode(received).data.data());
}

// With a separate byte array at each end.
void throughArrays(const std::string& data) {
    VCMessage sent;
    encode(sent, data);
    std::vector<char> wire(sent.byteSize());
    sent.serializeToArray(wire.data(), sent.byteSize());
    VCMessage received;
    if (!received.parseFromArray(wire.data(), static_cast<unsigned int>(wire.size()))) std::abort();
    bench::doNotOptimize(decode(received).data.data());
}

struct ProtobufObjects {
    ::bench::RouteMessage sent;
    std::string wire;
    ::bench::RouteMessage parsed;
    Received received;
};

void throughProtobuf(const std::string& data, ProtobufObjects& objects) {
    auto& [sent, wire, parsed, received] = objects;
    sent.set_message_type(9);
    sent.set_stream_name(kStreamName);
    sent.set_stream_type(kStreamType);
    sent.set_stream_size(kStreamSize);
    sent.set_route_data(data);
    sent.SerializeToString(&wire);
    if (!parsed.ParseFromString(wire)) std::abort();
    received.name.swap(*parsed.mutable_stream_name());
    received.type = parsed.stream_type();
    received.size = parsed.stream_size();
    received.data.swap(*parsed.mutable_route_data());
    bench::doNotOptimize(received.data.data());
}

void throughNewProtobuf(const std::string& data) {
    ProtobufObjects objects;
    throughProtobuf(data, objects);
}

}  // namespace

BENCH_SUITE(messages, "encoding and decoding a routed message, beside protobuf") {
    const struct {
        const char* name;
        std::size_t length;
        bench::Bounds bounds;
    } cases[] = {{"64 B", 64, bench::atMost(0.8, 0.6)},
                 {"1 KiB", 1 << 10, bench::atMost(0.8, 0.6)},
                 {"16 KiB", 16 << 10, bench::atMost(0.5, 0.4)},
                 {"1 MiB", 1 << 20, bench::atMost(0.5, 0.45)}};
    for (const auto& one : cases) {
        suite.group(one.name);
        const auto data = std::make_shared<std::string>(one.length, 'd');
        const auto copy = std::make_shared<std::string>(one.length, 'c');
        suite.timed("memcpy", [data, copy] {
            std::memcpy(copy->data(), data->data(), data->size());
            bench::doNotOptimize((*copy)[0]);
        });
        const auto objects = std::make_shared<ProtobufObjects>();
        const auto floor = suite.timed("protobuf, used again",
                                       [data, objects] { throughProtobuf(*data, *objects); });
        const auto fresh = suite.timed("protobuf", [data] { throughNewProtobuf(*data); });
        const auto ours = suite.timed("VCMessage", [data] { throughMessage(*data); });
        const auto arrays = suite.timed("VCMessage, arrays", [data] { throughArrays(*data); });
        suite.goal("encode + decode", ours["time"], floor["time"], one.bounds);
        suite.goal("the same against new objects", ours["time"], fresh["time"], bench::reported());
        suite.goal("the same with arrays", arrays["time"], floor["time"], bench::reported());
    }
}
