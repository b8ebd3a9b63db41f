// A hostile peer: the seeds of the fuzz target of the receive path, damaged and in any order. The
// build target `full_runs` sends a million messages.
#include <sys/resource.h>

#include <cstdlib>

#include "AgentFixture.h"
#include "KLTLogger.h"
#include "TestSupport.h"

// Ends the process if an agent has too many streams or no longer works.
extern "C" int fuzzReceivePath(const std::uint8_t* data, std::size_t size);

namespace {

// The records of all seeds: the event, the number of words, and the bytes.
std::vector<std::string> seedRecords() {
    std::vector<std::string> records;
    for (const auto& file : std::filesystem::directory_iterator(RECEIVE_PATH_SEEDS)) {
        const std::string seed = testsupport::contentOf(file.path());
        for (std::size_t at = 1; at + 1 < seed.size(); at += records.back().size()) {
            records.push_back(seed.substr(at, 2U + 4U * static_cast<unsigned char>(seed[at + 1])));
        }
    }
    return records;
}

std::string damaged(std::mt19937& random, std::string record) {
    for (auto bytes = random() % 4; bytes > 0 && record.size() > 2; --bytes) {
        record[2 + random() % (record.size() - 2)] = static_cast<char>(random());
    }
    return record;
}

// The peak memory of this process so far.
long peakKilobytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

int messagesToSend() {
    const char* const whole = std::getenv("NORVO_HOSTILE_MESSAGES");
    return whole ? std::atoi(whole) : testsupport::rounds(150'000);
}

}  // namespace

TEST(AgentHostile, AnyMessagesLeaveTheAgentAliveAndItsMemoryBounded) {
    KLT::kltlogger::setThreshold(0);
    const auto records = seedRecords();
    ASSERT_GT(records.size(), 20U);
    const long peakBefore = peakKilobytes();
    const int count = messagesToSend();
    constexpr int kPerAgent = 10'000;
    for (int done = 0; done < count; done += kPerAgent) {
        std::mt19937 random(static_cast<unsigned int>(done));
        std::string input(1, '\0');  // to a new agent
        for (int i = 0; i < std::min(kPerAgent, count - done); ++i) {
            input += damaged(random, records[random() % records.size()]);
        }
        fuzzReceivePath(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }
    KLT::kltlogger::setThreshold(KLT::kltlogger::Info);
    // Up to 1001 messages of 600 bytes wait in each of at most 192 streams. An emulator's own
    // memory would count, too.
    if (testsupport::kSanitized || testsupport::kEmulated) return;
    EXPECT_LT(peakKilobytes() - peakBefore, 500 * 1024);
}

TEST(AgentHostile, AMessageThatIsRepeatedWithoutEndIsLoggedInFullOnce) {
    using namespace testsupport;
    using namespace VirtualChannelAgent;
    auto unsupported = control(CTL_MESSAGE_TYPE_NOTSUPPORTED);
    unsupported.setUnsupportedMessageType(42);
    const std::pair<std::string, const char*> cases[] = {
        {"?", "Wrong message received, size: 1"},
        {wireOf(control(CTL_S_CREATE)), "CTL_S_CREATE without stream details"},
        {wireOf(control(CTL_S_CREATED)), "Stream details not provided"},
        {wireOf(control(CTL_S_ROUTE)), "destination not specified"},
        {wireOf(control(CTL_S_ERROR)), "without specifying the Stream"},
        {wireOf(unsupported), "Message type not supported by peer, type: 42"},
        {wireOf(aboutStream(CTL_S_ERROR, "Media", kRead)), "communicated an error in Media"},
        {wireOf(aboutStream(CTL_S_CREATE, "a/b", kRead)), "Failed to Create Stream."},
        {wireOf(routed("a/b", "data")), "could no be recreated!"},
    };
    const LogCapture log(KLT::kltlogger::Warning, true);
    AgentSide side;
    side.connect();
    for (int i = 0; i < 3; ++i)
        for (const auto& repeated : cases) side.channel.deliver(repeated.first);
    for (const auto& [bytes, line] : cases) EXPECT_EQ(log.count(line), 1) << line;
    // Each names the file it is written in, not the logger, which all share.
    const std::string folder = "src/virtualchannel/src/common/vc_agent/";
    EXPECT_EQ(log.sourceOf(cases[0].second), folder + "messages/VCMessage");
    EXPECT_EQ(log.sourceOf(cases[1].second), folder + "ControlProtocol");
}
