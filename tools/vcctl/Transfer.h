// The protocol of vcctl send and vcctl recv over a connection. All numbers are
// little-endian.
//
//   receiver: "NVXOFFER", how many bytes it already has, their checksum
//   sender:   "NVXSTART", where it starts (what the receiver has, or 0), the whole length or ~0
//             messages: length (4 bytes), bytes
//             end: ~0 (4 bytes), then of the whole file its length and checksum
//   receiver: verdict, as soon as there is one: 0 or 1 (4 bytes), length of a text (4 bytes), text:
//             for 0 the bytes it has taken, in decimal, for 1 why it failed
//             after 0: how many messages these were (8 bytes; some versions leave that out)
//
// A checksum is XXH3_64bits, seed 0.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "CommandError.h"
#include "SessionClient.h"

namespace vcctl {

// When a wait of `wait` seconds that begins now is over; 0: never.
std::chrono::steady_clock::time_point endOfWait(double wait);

// The partner is gone or unreachable.
class LinkLost : public CommandError {
public:
    LinkLost(const std::string& text, bool wasOpen) : CommandError(text), m_wasOpen(wasOpen) {}
    bool wasOpen() const { return m_wasOpen; }

private:
    const bool m_wasOpen;
};

// The partner left before it took part in the transfer: another one may come.
class NoPartner : public LinkLost {
public:
    explicit NoPartner(const std::string& text) : LinkLost(text, false) {}
};

// The receiver has ended the transfer early.
class Refused : public CommandError {
public:
    using CommandError::CommandError;
};

// A connection whose waits end when the user stops and whose failures are CommandErrors.
class TransferLink {
public:
    enum class Role { Send, Receive };
    using TimePoint = std::chrono::steady_clock::time_point;

    // `wait`: seconds for which the streams may be down (0: 60).
    TransferLink(SessionClient& session, const std::string& name, Role role, unsigned int capacity,
                 double wait);

    void waitUntilOpen(TimePoint giveUp);
    // `meanwhile` is called while it waits, about ten times a second.
    template <class Meanwhile>
    void write(const void* data, std::size_t length, Meanwhile meanwhile);
    void write(const void* data, std::size_t length) {
        write(data, length, [] {});
    }
    // Transfers all of it; `meanwhile` as above.
    template <class Meanwhile>
    void read(void* data, std::size_t length, Meanwhile meanwhile);
    void read(void* data, std::size_t length) {
        read(data, length, [] {});
    }
    // Throws LinkLost once the connection has failed; does not wait.
    void checkAlive() const;
    // Whether data from the partner is available; does not wait.
    bool hasInput();
    void finish();
    // Reads and discards until the partner has finished, too, so that neither end is cut off.
    void awaitEnd();
    // Waits up to `limit` until the partner has everything; false on time-out.
    bool settle(std::chrono::seconds limit);
    std::uint64_t acknowledged() const { return m_connection->acknowledged(); }

    void writeNumber(std::uint64_t number) { write(&number, sizeof number); }
    std::uint64_t readNumber();
    void writeTag(const char* tag) { write(tag, 8); }
    // Fails if another tag comes.
    void expectTag(const char* tag, TimePoint giveUp);

private:
    std::string nobodyText() const;
    [[noreturn]] void fail(const NorvoStreamClient::Status& why) const;
    // Throws unless waiting longer can help.
    void check(const NorvoStreamClient::Status& status) const;

    SessionClient& m_session;
    const std::string m_name;
    const Role m_role;
    bool m_open = false;
    bool m_takesPart = false;  // the partner, in a transfer
    std::string m_ahead;       // read by hasInput()
    std::shared_ptr<NorvoStreamClient::Connection> m_connection;
};

inline constexpr std::uint32_t kEndOfMessages = UINT32_MAX;
inline constexpr std::uint64_t kUnknownLength = UINT64_MAX;
inline constexpr std::size_t kLongestMessage = 64u << 20;
inline constexpr std::size_t kLongestVerdict = 4096;

template <class Meanwhile>
void TransferLink::write(const void* data, std::size_t length, Meanwhile meanwhile) {
    const char* from = static_cast<const char*>(data);
    while (length > 0) {
        std::size_t accepted = 0;
        check(m_connection->write(from, length, kPollTime, &accepted));
        from += accepted;
        length -= accepted;
        meanwhile();
    }
}

template <class Meanwhile>
void TransferLink::read(void* data, std::size_t length, Meanwhile meanwhile) {
    char* to = static_cast<char*>(data);
    const std::size_t ahead = m_ahead.copy(to, length);
    m_ahead.erase(0, ahead);
    to += ahead;
    std::size_t left = length - ahead;
    while (left > 0) {
        std::size_t got = 0;
        const auto status = m_connection->read(to, left, got, kPollTime);
        check(status);
        to += got;
        left -= got;
        if (!status) meanwhile();
    }
}

}  // namespace vcctl
