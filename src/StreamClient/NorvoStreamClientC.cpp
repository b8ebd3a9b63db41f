#include "NorvoStreamClientC.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <new>
#include <system_error>

#include "LocalMutex.h"
#include "NorvoStreamClient.h"

using NorvoStreamClient::Client;
using NorvoStreamClient::Connection;
using NorvoStreamClient::ConnectionOptions;
using NorvoStreamClient::Direction;
using NorvoStreamClient::Notification;
using NorvoStreamClient::Options;
using NorvoStreamClient::Reason;
using NorvoStreamClient::Status;
using NorvoStreamClient::Stream;

namespace {

std::chrono::milliseconds timeoutOf(int milliseconds) {
    return milliseconds < 0 ? std::chrono::milliseconds::max()
                            : std::chrono::milliseconds(milliseconds);
}

static_assert(static_cast<int>(Reason::SystemError) == NORVO_SYSTEM_ERROR &&
              static_cast<int>(Reason::InUse) == NORVO_IN_USE &&
              static_cast<int>(Reason::PeerGone) == NORVO_PEER_GONE &&
              static_cast<int>(Reason::NotTakenUp) == NORVO_NOT_TAKEN_UP &&
              static_cast<int>(Reason::InvalidArgument) == NORVO_INVALID);

int codeOf(const Status& status) {
    return status.reason() == Reason::SystemError && status.systemError() != 0
               ? NORVO_ERRNO + status.systemError()
               : static_cast<int>(status.reason());
}

// No exception crosses the boundary.
template <class Function>
int guarded(Function function) noexcept {
    try {
        return codeOf(function());
    } catch (const std::bad_alloc&) {
        return NORVO_NO_MEMORY;
    } catch (...) {
        return NORVO_SYSTEM_ERROR;
    }
}

bool describe(int errorNumber, char* text, size_t size) noexcept {
    try {
        const std::string what = std::generic_category().message(errorNumber);
        text[what.copy(text, size - 1)] = '\0';
        return true;
    } catch (...) {
        return false;
    }
}

// Keeps texts taken from the client that did not fit the caller's buffer.
class Leftovers {
public:
    template <class Take>
    Status copy(void* buffer, size_t size, size_t* length, Take take) {
        std::string text;
        if (!pop(text)) {
            if (const Status taken = take(text); !taken) return taken;
        }
        *length = text.size();
        if (text.size() > size) {
            VDIFrameworkCommon::LocalLock lock(m_mutex);
            m_texts.push_front(std::move(text));
            return static_cast<Reason>(NORVO_TOO_SMALL);
        }
        if (!text.empty()) std::memcpy(buffer, text.data(), text.size());
        return {};
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

ConnectionOptions optionsOf(const norvo_connection_options* given) {
    ConnectionOptions options;
    if (!given) return options;
    if (given->capacity > 0) options.capacity = given->capacity;
    if (given->window > 0) options.window = given->window;
    if (given->peer_timeout_ms > 0)
        options.peerTimeout = std::chrono::milliseconds(given->peer_timeout_ms);
    if (given->outage_ms > 0) options.outage = std::chrono::milliseconds(given->outage_ms);
    return options;
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

// A call keeps its state alive, so a handle may be closed while another thread waits in a call on
// it.
struct norvo_client {
    std::shared_ptr<ClientState> state;
};

struct norvo_stream {
    std::shared_ptr<StreamState> state;
};

struct norvo_connection {
    std::shared_ptr<Connection> state;
};

const char* norvo_error_text(int code) {
    thread_local char text[160];
    if (code == NORVO_TOO_SMALL) return "the text is longer than the buffer";
    if (code <= NORVO_ERRNO) return NorvoStreamClient::textOf(static_cast<Reason>(code));
    const int length =
        std::snprintf(text, sizeof text, "%s: ", NorvoStreamClient::textOf(Reason::SystemError));
    const auto used = static_cast<size_t>(length);
    if (!describe(code - NORVO_ERRNO, text + used, sizeof text - used)) text[used - 2] = '\0';
    return text;
}

norvo_client* norvo_client_open(const char* client_name) {
    return norvo_client_open_with(client_name, nullptr, nullptr);
}

norvo_client* norvo_client_open_with(const char* client_name, norvo_connection_callback callback,
                                     void* context) {
    norvo_client* client = nullptr;
    guarded([&] {
        Options options;
        if (client_name) options.clientName = client_name;
        if (callback) {
            options.onConnectionChange = [=](bool connected) { callback(connected, context); };
        }
        client = new norvo_client{std::make_shared<ClientState>(std::move(options))};
        return Status();
    });
    return client;
}

int norvo_client_close(norvo_client* client) {
    if (!client) return NORVO_INVALID;
    return guarded([&] {
        const Status closed = client->state->client.close();
        if (closed) delete client;
        return closed;
    });
}

int norvo_client_status(const norvo_client* client) {
    return client ? codeOf(client->state->client.status()) : NORVO_INVALID;
}

int norvo_client_is_listening(const norvo_client* client) {
    return norvo_client_status(client) == NORVO_OK;
}

int norvo_client_is_connected(const norvo_client* client) {
    return client && client->state->client.isConnected() ? 1 : 0;
}

int norvo_client_wait_connected(norvo_client* client, int timeout_ms) {
    if (!client) return NORVO_INVALID;
    const auto state = client->state;
    return guarded([&] { return state->client.waitUntilConnected(timeoutOf(timeout_ms)); });
}

unsigned int norvo_client_agent_process_id(const norvo_client* client) {
    return client ? client->state->client.agentProcessId() : 0;
}

int norvo_client_request(norvo_client* client, const char* operation, const char* const* fields,
                         size_t count, int timeout_ms) {
    if (!client || !operation || (count > 0 && !fields)) return NORVO_INVALID;
    if (std::find(fields, fields + count, nullptr) != fields + count) return NORVO_INVALID;
    const auto state = client->state;
    return guarded([&] {
        return state->client.request(operation, {fields, fields + count}, timeoutOf(timeout_ms));
    });
}

int norvo_client_next_notification(norvo_client* client, char* buffer, size_t size, size_t* length,
                                   int timeout_ms) {
    if (!client || !length || (size > 0 && !buffer)) return NORVO_INVALID;
    const auto state = client->state;
    return guarded([&] {
        return state->notifications.copy(buffer, size, length, [&](std::string& text) {
            Notification notification;
            const Status taken =
                state->client.nextNotification(notification, timeoutOf(timeout_ms));
            if (taken) text = flat(notification);
            return taken;
        });
    });
}

int norvo_stream_open(norvo_client* client, const char* name, int direction, unsigned int capacity,
                      norvo_stream** stream) {
    if (stream) *stream = nullptr;
    if (!client || !name || !stream) return NORVO_INVALID;
    if (direction != NORVO_READ && direction != NORVO_WRITE) return NORVO_INVALID;
    return guarded([&] {
        const auto opened = client->state->client.openStream(
            name, direction == NORVO_READ ? Direction::Read : Direction::Write, capacity);
        if (opened) {
            auto state = std::make_shared<StreamState>();
            state->stream = opened;
            *stream = new norvo_stream{std::move(state)};
        }
        return opened.status();
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
    return guarded([&] { return state->stream->waitUntilUp(timeoutOf(timeout_ms)); });
}

int norvo_stream_write(norvo_stream* stream, const void* data, size_t length, int timeout_ms) {
    if (!stream || (length > 0 && !data)) return NORVO_INVALID;
    const auto state = stream->state;
    return guarded([&] { return state->stream->write(data, length, timeoutOf(timeout_ms)); });
}

int norvo_stream_flush(norvo_stream* stream, int timeout_ms) {
    if (!stream) return NORVO_INVALID;
    const auto state = stream->state;
    return guarded([&] { return state->stream->flush(timeoutOf(timeout_ms)); });
}

int norvo_stream_read(norvo_stream* stream, void* buffer, size_t size, size_t* length,
                      int timeout_ms) {
    if (!stream || !length || (size > 0 && !buffer)) return NORVO_INVALID;
    const auto state = stream->state;
    return guarded([&] {
        return state->messages.copy(buffer, size, length, [&](std::string& message) {
            return state->stream->read(message, timeoutOf(timeout_ms));
        });
    });
}

int norvo_connection_open(norvo_client* client, const char* name, int role,
                          norvo_connection** connection) {
    return norvo_connection_open_with(client, name, role, nullptr, connection);
}

int norvo_connection_open_with(norvo_client* client, const char* name, int role,
                               const norvo_connection_options* options,
                               norvo_connection** connection) {
    if (connection) *connection = nullptr;
    if (!client || !name || !connection) return NORVO_INVALID;
    if (role != NORVO_CONNECT && role != NORVO_ACCEPT) return NORVO_INVALID;
    return guarded([&] {
        auto& of = client->state->client;
        const auto chosen = optionsOf(options);
        const auto opened =
            role == NORVO_CONNECT ? of.connect(name, chosen) : of.accept(name, chosen);
        if (opened) *connection = new norvo_connection{opened};
        return opened.status();
    });
}

void norvo_connection_close(norvo_connection* connection) {
    if (connection) connection->state->close();
    delete connection;
}

int norvo_connection_status(const norvo_connection* connection) {
    return connection ? codeOf(connection->state->status()) : NORVO_INVALID;
}

int norvo_connection_wait_open(norvo_connection* connection, int timeout_ms) {
    if (!connection) return NORVO_INVALID;
    const auto state = connection->state;
    return guarded([&] { return state->waitUntilOpen(timeoutOf(timeout_ms)); });
}

int norvo_connection_write(norvo_connection* connection, const void* data, size_t length,
                           size_t* accepted, int timeout_ms) {
    if (accepted) *accepted = 0;
    if (!connection) return NORVO_INVALID;
    const auto state = connection->state;
    return guarded([&] { return state->write(data, length, timeoutOf(timeout_ms), accepted); });
}

int norvo_connection_finish(norvo_connection* connection) {
    if (!connection) return NORVO_INVALID;
    return guarded([&] { return connection->state->finish(); });
}

int norvo_connection_flush(norvo_connection* connection, int timeout_ms) {
    if (!connection) return NORVO_INVALID;
    const auto state = connection->state;
    return guarded([&] { return state->flush(timeoutOf(timeout_ms)); });
}

unsigned long long norvo_connection_acknowledged(const norvo_connection* connection) {
    return connection ? connection->state->acknowledged() : 0;
}

int norvo_connection_read(norvo_connection* connection, void* buffer, size_t size, size_t* length,
                          int timeout_ms) {
    if (!connection || !length) return NORVO_INVALID;
    const auto state = connection->state;
    return guarded([&] { return state->read(buffer, size, *length, timeoutOf(timeout_ms)); });
}
