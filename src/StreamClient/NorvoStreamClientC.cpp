#include "NorvoStreamClientC.h"

#include <cstring>
#include <limits>
#include <mutex>
#include <new>
#include <optional>

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

// A text that was taken from the client and did not fit the caller's buffer waits here.
class Leftover {
public:
    template <class Take>
    int copy(void* buffer, size_t size, size_t* length, Take take) {
        std::lock_guard lock(m_mutex);
        if (!m_text) {
            std::string text;
            if (!take(text)) return NORVO_TIMEOUT;
            m_text = std::move(text);
        }
        *length = m_text->size();
        if (m_text->size() > size) return NORVO_TOO_SMALL;
        if (!m_text->empty()) std::memcpy(buffer, m_text->data(), m_text->size());
        m_text.reset();
        return NORVO_OK;
    }

private:
    std::mutex m_mutex;
    std::optional<std::string> m_text;
};

std::string flat(const Notification& notification) {
    std::string text = notification.name + '\0';
    for (const auto& field : notification.fields) text += field + '\0';
    return text;
}

}  // namespace

struct norvo_client {
    explicit norvo_client(Options options) : client(std::move(options)) {}
    Client client;
    Leftover notification;
};

struct norvo_stream {
    std::shared_ptr<Stream> stream;
    Leftover message;
};

norvo_client* norvo_client_open(const char* client_name) {
    return guarded<norvo_client*>(nullptr, [&] {
        Options options;
        if (client_name) options.clientName = client_name;
        return new norvo_client(std::move(options));
    });
}

void norvo_client_close(norvo_client* client) { delete client; }

int norvo_client_is_connected(const norvo_client* client) {
    return client && client->client.isConnected() ? 1 : 0;
}

int norvo_client_wait_connected(norvo_client* client, int timeout_ms) {
    if (!client) return NORVO_INVALID;
    return client->client.waitUntilConnected(timeoutOf(timeout_ms)) ? NORVO_OK : NORVO_TIMEOUT;
}

int norvo_client_request(norvo_client* client, const char* operation, const char* const* fields,
                         size_t count, int timeout_ms) {
    if (!client || !operation || (count > 0 && !fields)) return NORVO_INVALID;
    return guarded<int>(NORVO_INVALID, [&] {
        const std::vector<std::string> texts(fields, fields + count);
        return client->client.request(operation, texts, timeoutOf(timeout_ms)) ? NORVO_OK
                                                                               : NORVO_TIMEOUT;
    });
}

int norvo_client_next_notification(norvo_client* client, char* buffer, size_t size, size_t* length,
                                   int timeout_ms) {
    if (!client || !length || (size > 0 && !buffer)) return NORVO_INVALID;
    return guarded<int>(NORVO_INVALID, [&] {
        return client->notification.copy(buffer, size, length, [&](std::string& text) {
            Notification notification;
            if (!client->client.nextNotification(notification, timeoutOf(timeout_ms))) return false;
            text = flat(notification);
            return true;
        });
    });
}

norvo_stream* norvo_stream_open(norvo_client* client, const char* name, int direction,
                                unsigned int capacity) {
    if (!client || !name || (direction != NORVO_READ && direction != NORVO_WRITE)) return nullptr;
    return guarded<norvo_stream*>(nullptr, [&]() -> norvo_stream* {
        auto stream = client->client.openStream(
            name, direction == NORVO_READ ? Direction::Read : Direction::Write,
            capacity ? capacity : NorvoStreamClient::kDefaultCapacity);
        return stream ? new norvo_stream{std::move(stream), {}} : nullptr;
    });
}

void norvo_stream_close(norvo_stream* stream) { delete stream; }

int norvo_stream_is_up(const norvo_stream* stream) {
    return stream && stream->stream->isUp() ? 1 : 0;
}

int norvo_stream_wait_up(norvo_stream* stream, int timeout_ms) {
    if (!stream) return NORVO_INVALID;
    return stream->stream->waitUntilUp(timeoutOf(timeout_ms)) ? NORVO_OK : NORVO_TIMEOUT;
}

int norvo_stream_write(norvo_stream* stream, const void* data, size_t length, int timeout_ms) {
    if (!stream || (length > 0 && !data) || length > std::numeric_limits<unsigned int>::max()) {
        return NORVO_INVALID;
    }
    return stream->stream->write(data, length, timeoutOf(timeout_ms)) ? NORVO_OK : NORVO_TIMEOUT;
}

int norvo_stream_read(norvo_stream* stream, void* buffer, size_t size, size_t* length,
                      int timeout_ms) {
    if (!stream || !length || (size > 0 && !buffer)) return NORVO_INVALID;
    return guarded<int>(NORVO_INVALID, [&] {
        return stream->message.copy(buffer, size, length, [&](std::string& message) {
            return stream->stream->read(message, timeoutOf(timeout_ms));
        });
    });
}
