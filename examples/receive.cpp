// Prints the next message of the stream "Media".
#include <NorvoStreamClient.h>

#include <iostream>

int main() {
    NorvoStreamClient::Client client;
    const auto media = client.openStream("Media", NorvoStreamClient::Direction::Read);
    std::string message;
    const auto done = media->read(message, std::chrono::seconds(30));
    (done ? std::cout : std::cerr) << (done ? message : done.text()) << std::endl;
    return done ? 0 : 1;
}
