// What an agent logs, sends and sets up in whole sessions. AgentSession.txt is the transcript: each
// line "> event" is followed by the resulting lines; those of threads other than the test's are
// indented and sorted. NORVO_WRITE_SESSION=FILE writes what the test has seen.

#include <cstdlib>
#include <regex>

#include "AgentFixture.h"
#include "StreamType.h"
#include "TestSupport.h"

using namespace testsupport;
using namespace VirtualChannelAgent;

namespace {

// Collects the lines since the last take().
class Transcript : public KLT::kltlogger::LogSink {
public:
    void write(const KLT::kltlogger::LogRecord& record) override {
        static const std::regex sum(" more in [0-9]+ s$");  // of repeated lines; comes at any time
        if (!std::regex_search(std::string(record.message), sum)) note(record.message);
    }
    void note(std::string_view line) {
        const bool isOwn = std::this_thread::get_id() == m_thread;
        std::lock_guard lock(m_mutex);
        (isOwn ? m_own : m_others).push_back((isOwn ? "" : "  ") + std::string(line));
    }
    // At least `count` lines, or fewer when `limit` has passed.
    Texts take(std::size_t count, std::chrono::milliseconds limit) {
        const auto isComplete = [&] {
            std::lock_guard lock(m_mutex);
            return m_own.size() + m_others.size() >= count;
        };
        eventually(isComplete, limit);
        std::lock_guard lock(m_mutex);
        std::sort(m_others.begin(), m_others.end());
        Texts lines = std::exchange(m_own, {});
        lines.insert(lines.end(), m_others.begin(), m_others.end());
        m_others.clear();
        for (auto& line : lines) {
            line = std::regex_replace(line, std::regex("\\b" + std::to_string(getpid())), "PID");
            line =
                std::regex_replace(line, std::regex("\\b" + std::to_string(getppid())), "PARENT");
            line = std::regex_replace(line, std::regex("0x[0-9a-f]+"), "POINTER");
        }
        return lines;
    }

private:
    const std::thread::id m_thread = std::this_thread::get_id();
    std::mutex m_mutex;
    Texts m_own;
    Texts m_others;
};

// The message type, then a stream's name, type, size and data, or a handshake's streams, channel
// version, internal version and client version; "-" for a missing one.
VCMessage messageOf(const std::string& text) {
    using Setters = std::vector<std::function<void(VCMessage&, const std::string&)>>;
    static const auto number = [](const std::string& digits) {
        return static_cast<unsigned int>(std::stoul(digits));
    };
    static const Setters ofHandshake{&VCMessage::setSupportedStreams, &VCMessage::setChannelVersion,
                                     &VCMessage::setInternalVersion, &VCMessage::setClientVersion};
    static const Setters ofStream{
        &VCMessage::setStreamName,
        [](auto& message, auto& value) { message.setStreamType(number(value)); },
        [](auto& message, auto& value) { message.setStreamSize(number(value)); },
        [](auto& message, auto& value) {
            message.setRouteData(value.data(), static_cast<unsigned int>(value.size()));
        }};
    std::istringstream words(text);
    int type = 0;
    words >> type;
    auto message = control(static_cast<MessageTypeEnum>(type));
    std::string word;
    for (const auto& set : type < CTL_S_CREATE ? ofHandshake : ofStream) {
        if (words >> word && word != "-") set(message, word);
    }
    return message;
}

const std::map<std::string, void (*)(AgentSide&)> kEvents{
    {"channel available", [](AgentSide& side) { side.becomesAvailable(); }},
    {"channel not available", [](AgentSide& side) { side.becomesAvailable(false); }},
    {"channel shuts down",
     [](AgentSide& side) {
         side.channel.callObserver([](auto& o) { o.OnVirtualChannelShutdown(); });
     }},
    {"session up, platform, policy, session down",
     [](AgentSide& side) {
         side.channel.callObserver([](auto& o) {
             o.OnSessionAvailabilityChange(true);
             o.OnThinClientPlatformChange(4000000000U);
             o.OnChannelBlockedByPolicySetting(true);
             o.OnSessionAvailabilityChange(false);
         });
     }},
    {"no message",
     [](AgentSide& side) {
         side.channel.callObserver([](auto& o) { o.OnVirtualChannelReceiveData(nullptr, 40); });
     }},
    {"garbage", [](AgentSide& side) { side.channel.deliver(std::string(300, '\xAB')); }},
    {"another agent is active", [](AgentSide& side) { side.machine->otherAgentIsActive = true; }},
    {"no other agent is active", [](AgentSide& side) { side.machine->otherAgentIsActive = false; }},
    {"segments fail", [](AgentSide& side) { side.machine->segmentsFail = true; }},
    {"segments do not fail", [](AgentSide& side) { side.machine->segmentsFail = false; }},
    {"two threads wait",
     [](AgentSide& side) {
         EXPECT_TRUE(eventually([&] { return side.machine->waiting() == 2; }));
     }},
    {"the wall clock is set back", [](AgentSide& side) { side.machine->clock -= 100'000; }},
    {"the channel is taken away", [](AgentSide& side) { side.agent->SetVirtualChannel(nullptr); }},
    {"the channel comes", [](AgentSide& side) { side.agent->SetVirtualChannel(&side.channel); }},
    {"the session is seamless", [](AgentSide& side) { side.channel.seamless = true; }},
    {"agent stops", [](AgentSide& side) { side.agent->stop(); }},
};

class Session {
public:
    explicit Session(Transcript& transcript) : m_transcript(transcript) {}

    void happens(const std::string& what) {
        if (what == "agent starts") return start();
        const auto event = kEvents.find(what);
        if (event != kEvents.end()) return event->second(*m_side);
        const auto [who, text] = cut(what);
        if (who == "far") {
            m_side->channel.deliver(messageOf(text));
        } else if (who == "local") {
            m_side->request(text);
        } else if (who == "channel-type") {
            m_side->channel.type = std::stoi(text);
        } else if (who == "in-use") {
            std::set<std::string> names;
            utils::split(text, names, "-");
            m_side->machine->setOpenElsewhere(names);
        } else if (who == "pass") {
            EXPECT_TRUE(m_side->machine->pass(std::stoul(text)));
        } else {
            ASSERT_EQ(who, "write");
            const auto [name, data] = cut(text);
            m_side->segment(name)->localProcessWrites(data);
        }
    }

private:
    // The text before the first space, and after it.
    static std::pair<std::string, std::string> cut(const std::string& text) {
        const auto space = std::min(text.find(' '), text.size() - 1);
        return {text.substr(0, space), text.substr(space + 1)};
    }
    void start() {
        const auto machine = std::make_shared<FakeMachine>();
        machine->onSegmentSetUp = [this](FakeSegment& segment) {
            m_transcript.note("segment " + segment.getName() + " is " + segment.text());
        };
        machine->onWritten = [this](FakeSegment& segment, const std::string& text) {
            // The log shows the other notifications.
            if (segment.getName() == infoOutputName() && !text.starts_with("StreamUp")) return;
            m_transcript.note("segment " + segment.getName() + " has '" + text + "'");
        };
        m_side.emplace("side", machine);
        const auto noteCall = [this](const std::string& call) {
            m_transcript.note("channel: " + call +
                              (m_side->agent->IsConnected() ? "" : ", not connected"));
        };
        m_side->channel.onCall = [noteCall](const std::string& call) {
            if (call != "send" && call != "question") noteCall(call);
        };
        m_side->channel.onSent = [noteCall](const FakeChannel::Sent& sent) {
            noteCall("send " + sent.text());
        };
    }

    Transcript& m_transcript;
    std::optional<AgentSide> m_side;
};

}  // namespace

TEST(AgentSession, GoesAsItsTranscriptSays) {
    const char* const output = std::getenv("NORVO_WRITE_SESSION");
    const auto transcript = std::make_shared<Transcript>();
    const auto before = KLT::kltlogger::setSink(transcript);
    std::ostringstream seen;
    Session session(*transcript);
    const Texts file = linesOf(SESSION_TRANSCRIPT);
    for (auto line = file.begin(); line != file.end();) {
        const std::string what = *line++;
        seen << what << '\n';
        if (what.empty() || what[0] != '>') continue;  // a comment
        const auto next = std::find_if(line, file.end(), [](const std::string& each) {
            return each.empty() || each[0] == '>';
        });
        const Texts expected(std::exchange(line, next), next);
        session.happens(what.substr(2));
        const Texts lines =
            output ? transcript->take(1000, std::chrono::milliseconds(300))
                   : transcript->take(expected.size(), std::chrono::seconds(HasFailure() ? 1 : 20));
        EXPECT_EQ(lines, expected) << what;
        for (const auto& each : lines) seen << each << '\n';
    }
    KLT::kltlogger::setSink(before);
    if (output) std::ofstream(output) << seen.str();
}
