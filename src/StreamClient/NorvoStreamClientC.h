/* C interface of the stream client in NorvoStreamClient.h.
 *
 *     norvo_client *client = norvo_client_open(NULL);
 *     norvo_stream *out = NULL;
 *     int status = norvo_stream_open(client, "Media", NORVO_WRITE, 0, &out);
 *     if (status == NORVO_OK) status = norvo_stream_write(out, "hello", 5, 5000);
 *     if (status != NORVO_OK) fprintf(stderr, "%s\n", norvo_error_text(status));
 *     norvo_stream_close(out);
 *     norvo_client_close(client);
 *
 * A call that can fail returns NORVO_OK or one of the codes below; the call of the same name in
 * NorvoStreamClient.h lists its reasons. Any such call returns NORVO_INVALID for a null handle or
 * pointer, and NORVO_NO_MEMORY when out of memory. Times are in milliseconds; a negative time means
 * no limit. Everything is thread-safe, except that a handle must not be used after the call that
 * closes it. fork(): as in NorvoStreamClient.h. */
#ifndef NORVO_STREAM_CLIENT_C_H
#define NORVO_STREAM_CLIENT_C_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NORVO_STREAM_CLIENT_C_API __attribute__((visibility("default")))

typedef struct norvo_client norvo_client;         /* NOLINT(modernize-use-using): this is C */
typedef struct norvo_connection norvo_connection; /* NOLINT(modernize-use-using) */
typedef struct norvo_stream norvo_stream;         /* NOLINT(modernize-use-using) */

enum { NORVO_READ = 0, NORVO_WRITE = 1 };

enum {
    NORVO_OK = 0,
    NORVO_TIMEOUT = 1,       /* the time-out passed, although nothing else was missing */
    NORVO_TOO_SMALL = 2,     /* the text is longer than the buffer; it is kept for the next call */
    NORVO_INVALID = 3,       /* no call with this argument, or on this object, can succeed */
    NORVO_CLOSED = 4,        /* the object, or its client, was closed by this process */
    NORVO_NO_AGENT = 5,      /* no agent answers in this session: no host is running */
    NORVO_NOT_CONNECTED = 6, /* the agent runs, but is not connected to its peer */
    NORVO_NOT_TAKEN_UP = 7,  /* the peer agent has not taken up the stream */
    NORVO_ALREADY_OPEN = 8,  /* this client already has the stream open */
    NORVO_IN_USE_OTHER_DIRECTION = 9, /* the agents carry the stream in the other direction */
    NORVO_CAPACITY_MISMATCH = 10,     /* the segment is in use, too small, and cannot grow here */
    NORVO_NO_SPACE = 11,              /* no room for the segment */
    NORVO_NO_PERMISSION = 12,         /* the segment belongs to somebody else */
    NORVO_TOO_LONG = 13,              /* longer than a message or request may be */
    NORVO_PEER_GONE = 14,             /* the peer, or the agent that served the stream, is gone */
    NORVO_ENDED = 15,                 /* the peer has finished; there is nothing more to read */
    NORVO_NO_MEMORY = 16,
    NORVO_SYSTEM_ERROR = 17, /* the system refused without an errno */
    NORVO_IN_USE = 18,       /* another program uses it */
    NORVO_ERRNO = 1000       /* a code above it: the system refused; errno is code - NORVO_ERRNO */
};

/* The meaning of a code: a sentence without a full stop, never NULL. Valid until the same thread
 * calls this again. */
NORVO_STREAM_CLIENT_C_API const char* norvo_error_text(int code);

/* Called with 1 when the two agents connect and 0 when they disconnect, on the client's callback
 * thread. May use the client and its streams, but not close the client. */
typedef void (*norvo_connection_callback)(int connected, void* context); /* NOLINT */

/* Joins the agent of this user and session namespace. `client_name` NULL: "NorvoCrews". NULL when
 * out of memory. The caller closes the client. */
NORVO_STREAM_CLIENT_C_API norvo_client* norvo_client_open(const char* client_name);
/* The same with a callback, which gets `context`; the first call may come before this returns. */
NORVO_STREAM_CLIENT_C_API norvo_client* norvo_client_open_with(const char* client_name,
                                                               norvo_connection_callback callback,
                                                               void* context);
/* Closes the client and everything open on it; the stream handles must still be closed.
 * NORVO_INVALID, and nothing is closed, from the client's own callback. */
NORVO_STREAM_CLIENT_C_API int norvo_client_close(norvo_client* client);
/* NORVO_OK while notifications can be received, whether or not an agent runs. */
NORVO_STREAM_CLIENT_C_API int norvo_client_status(const norvo_client* client);
/* 1 when that is NORVO_OK, else 0. */
NORVO_STREAM_CLIENT_C_API int norvo_client_is_listening(const norvo_client* client);
/* 1 while the agents at the two ends are connected, else 0. */
NORVO_STREAM_CLIENT_C_API int norvo_client_is_connected(const norvo_client* client);
NORVO_STREAM_CLIENT_C_API int norvo_client_wait_connected(norvo_client* client, int timeout_ms);
/* The process ID that the agent reports; 0 while unknown. */
NORVO_STREAM_CLIENT_C_API unsigned int norvo_client_agent_process_id(const norvo_client* client);
/* Sends a request with `count` fields. NORVO_OK once an agent has taken it. */
NORVO_STREAM_CLIENT_C_API int norvo_client_request(norvo_client* client, const char* operation,
                                                   const char* const* fields, size_t count,
                                                   int timeout_ms);
/* Copies the next notification into `buffer`: its name and fields, each followed by '\0'. `*length`
 * is their size in bytes, also with NORVO_TOO_SMALL. */
NORVO_STREAM_CLIENT_C_API int norvo_client_next_notification(norvo_client* client, char* buffer,
                                                             size_t size, size_t* length,
                                                             int timeout_ms);

/* Opens a stream. `direction` is what the caller does, `capacity` the segment's bytes (0: the
 * library chooses). `*stream` is NULL after a failure. The caller closes it. */
NORVO_STREAM_CLIENT_C_API int norvo_stream_open(norvo_client* client, const char* name,
                                                int direction, unsigned int capacity,
                                                norvo_stream** stream);
NORVO_STREAM_CLIENT_C_API void norvo_stream_close(norvo_stream* stream);
/* 1 while both agents serve the stream and are connected, else 0. */
NORVO_STREAM_CLIENT_C_API int norvo_stream_is_up(const norvo_stream* stream);
NORVO_STREAM_CLIENT_C_API int norvo_stream_wait_up(norvo_stream* stream, int timeout_ms);
/* Writes one whole message: NORVO_OK once it is in the segment. */
NORVO_STREAM_CLIENT_C_API int norvo_stream_write(norvo_stream* stream, const void* data,
                                                 size_t length, int timeout_ms);
/* Waits until the agent has taken everything that was written; the process may then exit. */
NORVO_STREAM_CLIENT_C_API int norvo_stream_flush(norvo_stream* stream, int timeout_ms);
/* Copies the next message into `buffer`; `*length` is its size, also with NORVO_TOO_SMALL. */
NORVO_STREAM_CLIENT_C_API int norvo_stream_read(norvo_stream* stream, void* buffer, size_t size,
                                                size_t* length, int timeout_ms);

/* Connections: reliable, ordered byte streams in both directions; NorvoStreamConnection.h describes
 * each call. */

/* Opens the connection `name`, whose peer uses the opposite role: NORVO_CONNECT or NORVO_ACCEPT.
 * Both may connect, as NorvoStreamClient.h says. `*connection` is NULL after a failure. The caller
 * closes it. */
enum { NORVO_CONNECT = 0, NORVO_ACCEPT = 1 };
NORVO_STREAM_CLIENT_C_API int norvo_connection_open(norvo_client* client, const char* name,
                                                    int role, norvo_connection** connection);
/* The same with options (NULL: all defaults; 0 in a field: its default, also of the times): the
 * streams' capacity and the window in bytes, and how long the peer may be silent and the streams
 * may be down. */
typedef struct norvo_connection_options { /* NOLINT(modernize-use-using): this is C */
    unsigned int capacity;
    size_t window;
    unsigned int peer_timeout_ms;
    unsigned int outage_ms;
} norvo_connection_options;
NORVO_STREAM_CLIENT_C_API int norvo_connection_open_with(norvo_client* client, const char* name,
                                                         int role,
                                                         const norvo_connection_options* options,
                                                         norvo_connection** connection);
NORVO_STREAM_CLIENT_C_API void norvo_connection_close(norvo_connection* connection);
/* NORVO_OK while it is open or may still open; otherwise why it has failed. */
NORVO_STREAM_CLIENT_C_API int norvo_connection_status(const norvo_connection* connection);
NORVO_STREAM_CLIENT_C_API int norvo_connection_wait_open(norvo_connection* connection,
                                                         int timeout_ms);
/* Accepts bytes to send; `*accepted`, if not NULL, is set to their number, also after
 * NORVO_TIMEOUT. */
NORVO_STREAM_CLIENT_C_API int norvo_connection_write(norvo_connection* connection, const void* data,
                                                     size_t length, size_t* accepted,
                                                     int timeout_ms);
/* Ends this direction: nothing more is written. */
NORVO_STREAM_CLIENT_C_API int norvo_connection_finish(norvo_connection* connection);
/* Waits until the peer process has everything that was written. */
NORVO_STREAM_CLIENT_C_API int norvo_connection_flush(norvo_connection* connection, int timeout_ms);
/* How many of the written bytes the peer process has. */
NORVO_STREAM_CLIENT_C_API unsigned long long norvo_connection_acknowledged(
    const norvo_connection* connection);
/* Reads 1 to `size` bytes; `*length` is set to their number. NORVO_ENDED after the last one. */
NORVO_STREAM_CLIENT_C_API int norvo_connection_read(norvo_connection* connection, void* buffer,
                                                    size_t size, size_t* length, int timeout_ms);

#ifdef __cplusplus
}
#endif

#endif
