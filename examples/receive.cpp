// Prints the next message of the stream "Basic".
#include <NorvoStreamClient.h>

#include <iostream>

int main() {
    NorvoStreamClient::Client client;
    const auto basic = client.openStream("Basic", NorvoStreamClient::Direction::Read);
    std::string message;
    if (!basic || !basic->read(message, std::chrono::seconds(30))) return 1;
    std::cout << message << std::endl;
}
