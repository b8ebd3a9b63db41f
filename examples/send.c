/* Sends one message into the stream "Media". */
#include <NorvoStreamClientC.h>
#include <stdio.h>

int main(void) {
    norvo_client* client = norvo_client_open(NULL);
    norvo_stream* media = NULL;
    int status = norvo_stream_open(client, "Media", NORVO_WRITE, 0, &media);
    if (status == NORVO_OK) status = norvo_stream_write(media, "hello", 5, 10000);
    if (status == NORVO_OK) status = norvo_stream_flush(media, 10000);
    if (status != NORVO_OK) fprintf(stderr, "%s\n", norvo_error_text(status));
    norvo_stream_close(media);
    norvo_client_close(client);
    return status == NORVO_OK ? 0 : 1;
}
