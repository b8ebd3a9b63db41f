// Sends one message into the stream "Media".
#include <NorvoStreamClient.h>

int main() {
    using namespace std::chrono_literals;
    NorvoStreamClient::Client client;
    const auto media = client.openStream("Media", NorvoStreamClient::Direction::Write);
    return media && media->write("hello", 5, 10s) && media->flush(10s) ? 0 : 1;
}
