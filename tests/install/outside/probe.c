#include <NorvoStreamClientC.h>
#include <stdio.h>

int main(void) {
    norvo_client* client = norvo_client_open(NULL);
    if (!client) return 1;
    if (norvo_client_wait_connected(client, 10) != NORVO_NO_AGENT) return 1;
    puts(norvo_error_text(NORVO_NO_AGENT));
    norvo_client_close(client);
    return 0;
}
