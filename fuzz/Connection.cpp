// Frames of a connection from the peer. The input is a sequence of records: a byte for the action,
// a length byte, and that many bytes. An honest partner runs as well, so that forged frames meet
// every state.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ConnectionMachine.h"

using NorvoStreamClient::ConnectionFrame;
using NorvoStreamClient::ConnectionMachine;

namespace {

constexpr std::size_t kCapacity = 1024;

class Ends {
public:
    void take(unsigned char what, const uint8_t* data, size_t size) {
        m_now += std::chrono::milliseconds(what);
        ConnectionMachine& end = m_ends[what & 1];
        switch (what / 2 % 8) {
            case 0:
                end.hear(std::string(reinterpret_cast<const char*>(data), size), m_now);
                break;
            case 1:
            case 2:
                end.hear(lie(what & 1, data, size), m_now);
                break;
            case 3:
                end.write(reinterpret_cast<const char*>(data), size);
                break;
            case 4:
                read(end);
                break;
            case 5:
                end.setPath(size % 2 == 0, m_now);
                break;
            case 6:
                if (size % 8 == 0) end.finish();
                break;
            default:
                pass(what & 1);
        }
    }

private:
    static ConnectionMachine::Settings settings() {
        ConnectionMachine::Settings small;
        small.blockSize = 64;
        small.capacity = kCapacity;
        return small;
    }

    // A frame with the right epochs whose other fields are forged.
    static std::string lie(int to, const uint8_t* data, size_t size) {
        std::array<std::uint8_t, 8> field{};
        std::memcpy(field.data(), data, std::min(size, field.size()));
        ConnectionFrame frame;
        frame.kind = static_cast<ConnectionFrame::Kind>(1 + field[0] % 4);
        frame.flags = field[1] % 4;
        frame.from = to == 0 ? 2 : 1;
        frame.to = frame.kind == ConnectionFrame::Kind::Hello ? 0 : 3 - frame.from;
        frame.number = field[2];
        frame.seen = field[3] % 16;
        frame.offset = field[4];
        frame.acked = field[5];
        frame.limit = field[6] * 16U;
        frame.messages = field[7];
        const size_t length = frame.kind == ConnectionFrame::Kind::Data ? size : 0;
        if (length == 0 && !frame.has(ConnectionFrame::kEnd)) frame.number = 0;
        std::string message(ConnectionFrame::kHeaderSize + length, 'x');
        frame.writeHeader(message.data(), length);
        return message;
    }

    static void read(ConnectionMachine& end) {
        std::array<char, 2 * kCapacity> bytes;
        if (end.read(bytes.data(), bytes.size()) > kCapacity) abort();
    }

    void pass(int from) {
        for (int i = 0; i < 1000; ++i) {
            const auto frame = m_ends[static_cast<size_t>(from)].nextFrame(m_now);
            if (!frame) return;
            m_ends[static_cast<size_t>(1 - from)].hear(*frame, m_now);
        }
        abort();  // it never becomes idle
    }

    ConnectionMachine::Time m_now{};
    std::array<ConnectionMachine, 2> m_ends{
        ConnectionMachine(ConnectionMachine::Role::Connect, 1, settings(), m_now),
        ConnectionMachine(ConnectionMachine::Role::Accept, 2, settings(), m_now)};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Ends ends;
    while (size > 1) {
        const size_t length = std::min<size_t>(data[1], size - 2);
        ends.take(data[0], data + 2, length);
        data += 2 + length;
        size -= 2 + length;
    }
    return 0;
}
