#include <NorvoStreamClient.h>

#include <cstdio>

int main() {
    NorvoStreamClient::Client client;
    if (client.waitUntilConnected(std::chrono::milliseconds(10))) return 1;
    std::puts("no agent");
}
