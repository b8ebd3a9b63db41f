// The agent's news as a local process receives it, whoever wrote it. The input is a sequence of
// records: a byte for the action, a length byte, and that many bytes of text.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "AgentView.h"
#include "MessageParser.h"

using NorvoStreamClient::AgentView;
using NorvoStreamClient::Direction;

namespace {

struct Client {
    Client() {
        view.addStream("Media", Direction::Read, 100);
        view.addStream("Basic", Direction::Write, 100);
    }

    void hear(const std::string& text) {
        auto fields = VDIFrameworkCommon::MessageParser(text).parseMsg();
        NorvoStreamClient::Notification news{fields[0], {}};
        news.fields.assign(fields.begin() + 1, fields.end());
        note(view.hear(news, now).connectionChange);
        if (view.isUp("Media") && !view.isConnected()) abort();
    }

    // Bounded: each request is due once, and again only after an interval.
    void askWhatIsDue(bool taken) {
        for (int i = 0; i < 100; ++i) {
            const auto due = view.due(now);
            if (!due) return;
            note(view.finished(*due, taken, now));
        }
        abort();
    }

    // Changes are reported, and only changes.
    void note(std::optional<bool> change) {
        if (change && *change == connected) abort();
        if (change) connected = *change;
        if (connected != view.isConnected()) abort();
    }

    AgentView view;
    std::chrono::steady_clock::time_point now{std::chrono::hours(1)};
    bool connected = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Client client;
    while (size > 1) {
        const size_t length = std::min<size_t>(data[1], size - 2);
        const std::string text(reinterpret_cast<const char*>(data + 2), length);
        switch (data[0] % 4) {
            case 0:
            case 1:
                client.hear(text);
                break;
            case 2:
                client.now += std::chrono::milliseconds(10) * length;
                break;
            default:
                client.askWhatIsDue(length % 2 == 0);
        }
        data += 2 + length;
        size -= 2 + length;
    }
    client.view.close();
    return 0;
}
