/* Prints the next message of the stream "Media". */
#include <NorvoStreamClientC.h>
#include <stdio.h>

int main(void) {
    char message[65536];
    size_t length = 0;
    norvo_client* client = norvo_client_open(NULL);
    norvo_stream* media = NULL;
    int status = norvo_stream_open(client, "Media", NORVO_READ, 0, &media);
    if (status == NORVO_OK)
        status = norvo_stream_read(media, message, sizeof message, &length, 30000);
    if (status == NORVO_OK) printf("%.*s\n", (int)length, message);
    if (status != NORVO_OK) fprintf(stderr, "%s\n", norvo_error_text(status));
    norvo_stream_close(media);
    norvo_client_close(client);
    return status == NORVO_OK ? 0 : 1;
}
