/* The stream client of NorvoStreamClient.h for programs in C, and for all that speak C.
 *
 *     norvo_client *client = norvo_client_open(NULL);
 *     norvo_stream *out = norvo_stream_open(client, "Media", NORVO_WRITE, 0);
 *     if (norvo_stream_write(out, "hello", 5, 5000) != NORVO_OK) return 1;
 *     norvo_stream_close(out);
 *     norvo_client_close(client);
 *
 * Times are milliseconds; a negative one means without limit. Everything may be called from several
 * threads at once, except that a handle must not be used after the call that closes it. Null
 * handles are answered with NORVO_INVALID, 0 or NULL. */
#ifndef NORVO_STREAM_CLIENT_C_H
#define NORVO_STREAM_CLIENT_C_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NORVO_STREAM_CLIENT_C_API __attribute__((visibility("default")))

typedef struct norvo_client norvo_client; /* NOLINT(modernize-use-using): this is C */
typedef struct norvo_stream norvo_stream; /* NOLINT(modernize-use-using) */

enum { NORVO_READ = 0, NORVO_WRITE = 1 };

enum {
    NORVO_OK = 0,
    NORVO_TIMEOUT = 1,   /* the time passed first, or client or stream were closed meanwhile */
    NORVO_TOO_SMALL = 2, /* the message is longer than the buffer; it waits for a larger one */
    NORVO_INVALID = 3    /* an argument is not possible, as the stream's direction; or no memory */
};

/* Joins the agent of this user and session namespace. `client_name` NULL: "NorvoCrews". NULL when
 * out of memory. The caller closes it. */
NORVO_STREAM_CLIENT_C_API norvo_client* norvo_client_open(const char* client_name);
/* Closes the client and what is open on it; its streams are still to be closed by their owner. */
NORVO_STREAM_CLIENT_C_API void norvo_client_close(norvo_client* client);
/* 1 while the agents at the two ends are connected, else 0. */
NORVO_STREAM_CLIENT_C_API int norvo_client_is_connected(const norvo_client* client);
NORVO_STREAM_CLIENT_C_API int norvo_client_wait_connected(norvo_client* client, int timeout_ms);
/* Sends a request with `count` fields. NORVO_OK once an agent has taken it; NORVO_INVALID also when
 * it does not fit (10240 bytes). */
NORVO_STREAM_CLIENT_C_API int norvo_client_request(norvo_client* client, const char* operation,
                                                   const char* const* fields, size_t count,
                                                   int timeout_ms);
/* Copies the next notification into `buffer` as its name and fields, a '\0' after each; `*length`
 * is then their size in bytes, also with NORVO_TOO_SMALL. */
NORVO_STREAM_CLIENT_C_API int norvo_client_next_notification(norvo_client* client, char* buffer,
                                                             size_t size, size_t* length,
                                                             int timeout_ms);

/* Opens a stream; `direction` is what the caller does, `capacity` the segment's bytes (0: 65536).
 * NULL when that is not possible. The caller closes it. */
NORVO_STREAM_CLIENT_C_API norvo_stream* norvo_stream_open(norvo_client* client, const char* name,
                                                          int direction, unsigned int capacity);
NORVO_STREAM_CLIENT_C_API void norvo_stream_close(norvo_stream* stream);
/* 1 while both agents serve the stream and are connected, else 0. */
NORVO_STREAM_CLIENT_C_API int norvo_stream_is_up(const norvo_stream* stream);
NORVO_STREAM_CLIENT_C_API int norvo_stream_wait_up(norvo_stream* stream, int timeout_ms);
/* Writes one message whole: NORVO_OK once it is in the segment. */
NORVO_STREAM_CLIENT_C_API int norvo_stream_write(norvo_stream* stream, const void* data,
                                                 size_t length, int timeout_ms);
/* Waits until the agent has taken everything that was written, so that the process may end. */
NORVO_STREAM_CLIENT_C_API int norvo_stream_flush(norvo_stream* stream, int timeout_ms);
/* Copies the next message into `buffer`; `*length` is its size, also with NORVO_TOO_SMALL. */
NORVO_STREAM_CLIENT_C_API int norvo_stream_read(norvo_stream* stream, void* buffer, size_t size,
                                                size_t* length, int timeout_ms);

#ifdef __cplusplus
}
#endif

#endif
