#include <NorvoStreamClient.h>

#include <cstdio>

int main() {
    NorvoStreamClient::Client client;
    std::puts(client.waitUntilConnected(std::chrono::milliseconds(10)).text().c_str());
}
