// Sends one message into the stream "Media".
#include <NorvoStreamClient.h>

#include <iostream>

int main() {
    using namespace std::chrono_literals;
    NorvoStreamClient::Client client;
    const auto media = client.openStream("Media", NorvoStreamClient::Direction::Write);
    auto done = media->write("hello", 5, 10s);
    if (done) done = media->flush(10s);
    if (!done) std::cerr << done.text() << std::endl;
    return done ? 0 : 1;
}
