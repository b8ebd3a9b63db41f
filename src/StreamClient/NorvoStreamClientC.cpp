#include "NorvoStreamClientC.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <limits>
#include <new>

#include "LocalMutex.h"
#include "NorvoStreamClient.h"

using NorvoStreamClient::Client;
using NorvoStreamClient::Direction;
using NorvoStreamClient::Notification;
using NorvoStreamClient::Options;
using NorvoStreamClient::Stream;

namespace {

std::chrono::milliseconds timeoutOf(int milliseconds) {
    return milliseconds < 0 ? std::chrono::milliseconds::max()
                            : std::chrono::milliseconds(milliseconds);
}

// Nothing crosses the boundary as an exception: `otherwise` is the answer when memory runs out.
template <class Result, class Function>
Result guarded(Result otherwise, Function function) noexcept {
    try {
        return function();
    } catch (...) {
        return otherwise;
    }
}

// For a call that either does what it is for or runs out of time.
template <class Function>
int timed(Function function) noexcept {
    return guarded<int>(NORVO_INVALID, [&] { return function() ? NORVO_OK : NORVO_TIMEOUT; });
}

// Texts that were taken from the client and did not fit the caller's buffer wait here.
class Leftovers {
public:
    template <class Take>
    int copy(void* buffer, size_t size, size_t* length, Take take) {
        std::string text;
        if (!pop(text) && !take(text)) return NORVO_TIMEOUT;
        *length = text.size();
        if (text.size() > size) {
            VDIFrameworkCommon::LocalLock lock(m_mutex);
            m_texts.push_front(std::move(text));
            return NORVO_TOO_SMALL;
        }
        if (!text.empty()) std::memcpy(buffer, text.data(), text.size());
        return NORVO_OK;
    }

private:
    bool pop(std::string& text) {
        VDIFrameworkCommon::LocalLock lock(m_mutex);
        if (m_texts.empty()) return false;
        text = std::move(m_texts.front());
        m_texts.pop_front();
        return true;
    }

    VDIFrameworkCommon::LocalMutex m_mutex;
    std::deque<std::string> m_texts NORVO_GUARDED_BY(m_mutex);
};

std::string flat(const Notification& notification) {
    std::string text = notification.name + '\0';
    for (const auto& field : notification.fields) text += field + '\0';
    return text;
}

struct ClientState {
    explicit ClientState(Options options) : client(std::move(options)) {}
    Client client;
    Leftovers notifications;
};

struct StreamState {
    std::shared_ptr<Stream> stream;
    Leftovers messages;
};

}  // namespace

// A call keeps the state alive that it works on, so a handle may be closed while another thread
// waits in a call on it.
struct norvo_client {
    std::shared_ptr<ClientState> state;
};

struct norvo_stream {
    std::shared_ptr<StreamState> state;
};

norvo_client* norvo_client_open(const char* client_name) {
    return guarded<norvo_client*>(nullptr, [&] {
        Options options;
        if (client_name) options.clientName = client_name;
        return new norvo_client{std::make_shared<ClientState>(std::move(options))};
    });
}

void norvo_client_close(norvo_client* client) {
    if (client) client->state->client.close();
    delete client;
}

int norvo_client_is_connected(const norvo_client* client) {
    return client && client->state->client.isConnected() ? 1 : 0;
}

int norvo_client_wait_connected(norvo_client* client, int timeout_ms) {
    if (!client) return NORVO_INVALID;
    const auto state = client->state;
    return timed([&] { return state->client.waitUntilConnected(timeoutOf(timeout_ms)); });
}

int norvo_client_request(norvo_client* client, const char* operation, const char* const* fields,
                         size_t count, int timeout_ms) {
    if (!client || !operation || !*operation || (count > 0 && !fields)) return NORVO_INVALID;
    if (std::find(fields, fields + count, nullptr) != fields + count) return NORVO_INVALID;
    return guarded<int>(NORVO_INVALID, [&]() -> int {
        const std::vector<std::string> texts(fields, fields + count);
        if (!NorvoStreamClient::Client::isPossibleRequest(operation, texts)) return NORVO_INVALID;
        const auto state = client->state;
        return state->client.request(operation, texts, timeoutOf(timeout_ms)) ? NORVO_OK
                                                                              : NORVO_TIMEOUT;
    });
}

int norvo_client_next_notification(norvo_client* client, char* buffer, size_t size, size_t* length,
                                   int timeout_ms) {
    if (!client || !length || (size > 0 && !buffer)) return NORVO_INVALID;
    return guarded<int>(NORVO_INVALID, [&] {
        const auto state = client->state;
        return state->notifications.copy(buffer, size, length, [&](std::string& text) {
            Notification notification;
            if (!state->client.nextNotification(notification, timeoutOf(timeout_ms))) return false;
            text = flat(notification);
            return true;
        });
    });
}

norvo_stream* norvo_stream_open(norvo_client* client, const char* name, int direction,
                                unsigned int capacity) {
    if (!client || !name || (direction != NORVO_READ && direction != NORVO_WRITE)) return nullptr;
    return guarded<norvo_stream*>(nullptr, [&]() -> norvo_stream* {
        auto stream = client->state->client.openStream(
            name, direction == NORVO_READ ? Direction::Read : Direction::Write,
            capacity ? capacity : NorvoStreamClient::kDefaultCapacity);
        if (!stream) return nullptr;
        auto state = std::make_shared<StreamState>();
        state->stream = std::move(stream);
        return new norvo_stream{std::move(state)};
    });
}

void norvo_stream_close(norvo_stream* stream) {
    if (stream) stream->state->stream->close();
    delete stream;
}

int norvo_stream_is_up(const norvo_stream* stream) {
    return stream && stream->state->stream->isUp() ? 1 : 0;
}

int norvo_stream_wait_up(norvo_stream* stream, int timeout_ms) {
    if (!stream) return NORVO_INVALID;
    const auto state = stream->state;
    return timed([&] { return state->stream->waitUntilUp(timeoutOf(timeout_ms)); });
}

int norvo_stream_write(norvo_stream* stream, const void* data, size_t length, int timeout_ms) {
    if (!stream || (length > 0 && !data) || length > std::numeric_limits<unsigned int>::max()) {
        return NORVO_INVALID;
    }
    const auto state = stream->state;
    if (state->stream->direction() != Direction::Write) return NORVO_INVALID;
    return timed([&] { return state->stream->write(data, length, timeoutOf(timeout_ms)); });
}

int norvo_stream_flush(norvo_stream* stream, int timeout_ms) {
    if (!stream) return NORVO_INVALID;
    const auto state = stream->state;
    return timed([&] { return state->stream->flush(timeoutOf(timeout_ms)); });
}

int norvo_stream_read(norvo_stream* stream, void* buffer, size_t size, size_t* length,
                      int timeout_ms) {
    if (!stream || !length || (size > 0 && !buffer)) return NORVO_INVALID;
    const auto state = stream->state;
    if (state->stream->direction() != Direction::Read) return NORVO_INVALID;
    return guarded<int>(NORVO_INVALID, [&] {
        return state->messages.copy(buffer, size, length, [&](std::string& message) {
            return state->stream->read(message, timeoutOf(timeout_ms));
        });
    });
}
