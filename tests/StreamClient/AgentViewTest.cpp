#include "AgentView.h"
#include "TestSupport.h"

namespace {

using namespace testsupport;
using namespace NorvoStreamClient;

class AgentViewTest : public testing::Test {
protected:
    // Everything due now; the agent takes each at once (or not).
    Texts sendDue(bool taken = true) {
        Texts texts;
        while (texts.size() < 20) {
            const auto due = view.due(now);
            if (!due) break;
            texts.push_back(due->text);
            lastChange = view.finished(*due, taken, now);
        }
        return texts;
    }
    bool asksFor(const std::string& request) {
        const auto texts = sendDue();
        return std::find(texts.begin(), texts.end(), request) != texts.end();
    }
    AgentView::Heard hear(const std::string& name, Texts fields = {}) {
        return view.hear({name, std::move(fields)}, now);
    }

    AgentView view;
    Clock::time_point now = Clock::now();
    std::optional<bool> lastChange;
};

class AgentViewOfAnAgentTest : public AgentViewTest {
protected:
    AgentViewOfAnAgentTest() {
        sendDue();
        hear("VCProcessId", {"77", "1"});
        sendDue();
    }
};

TEST_F(AgentViewTest, AnAgentThatStartsDuringARequestAndMissesItIsFound) {
    const auto due = view.due(now);
    ASSERT_TRUE(due);
    now += 100ms;
    hear("VCProcessId", {"77", "1"});
    now += 100ms;
    EXPECT_EQ(view.finished(*due, false, now), std::nullopt);
    EXPECT_TRUE(view.isConnected());
    now += 3s;
    sendDue(false);
    EXPECT_FALSE(view.isConnected());
}

TEST_F(AgentViewTest, ProbesForAnAgentBeforeItAsksForStreams) {
    view.addStream("Media", Direction::Read, 100);
    EXPECT_EQ(sendDue(false), Texts{"RequestVCProcessId"});
    now += 100ms;
    EXPECT_EQ(sendDue(false), Texts());
    now += 500ms;
    EXPECT_EQ(sendDue(), (Texts{"RequestVCProcessId", "CreateStream|Media|100"}));
}

TEST_F(AgentViewOfAnAgentTest, RepeatsARequestUntilTheStreamIsUpInItsDirection) {
    view.addStream("Media", Direction::Write, 100);
    EXPECT_TRUE(asksFor("OpenStream|Media|100"));
    now += 3s;
    hear("StreamUp", {"Media", "READ"});
    EXPECT_FALSE(view.isUp("Media"));
    EXPECT_TRUE(asksFor("OpenStream|Media|100"));
    hear("StreamUp", {"Media", "WRITE"});
    EXPECT_TRUE(view.isUp("Media"));
    now += 10s;
    EXPECT_FALSE(asksFor("OpenStream|Media|100"));
}

TEST_F(AgentViewOfAnAgentTest, AStreamOpenedAgainDuringItsOldRequestIsAskedForAtOnce) {
    view.addStream("Media", Direction::Write, 100);
    const auto old = view.due(now);
    ASSERT_TRUE(old);
    view.removeStream("Media");
    view.addStream("Media", Direction::Read, 100);
    view.finished(*old, true, now);
    EXPECT_TRUE(asksFor("CreateStream|Media|100"));
}

TEST_F(AgentViewOfAnAgentTest, AsksForTheStreamsThatAreDownEverMoreRarely) {
    for (const char* name : {"Basic", "Generic", "Media"}) view.addStream(name, Direction::Read, 1);
    sendDue();
    hear("StreamUp", {"Generic", "READ"});
    int calls = 0;
    for (int i = 0; i < 590; ++i) {
        for (const auto& text : sendDue()) calls += text == "RequestNotifyStream|Basic|Media";
        now += 10ms;
    }
    EXPECT_GE(calls, 11);
    EXPECT_LE(calls, 14);
}

TEST_F(AgentViewOfAnAgentTest,
       ALostConnectionOrANewAgentTakesTheStreamsDownAndTheyAreAskedForAgain) {
    view.addStream("Media", Direction::Write, 100);
    EXPECT_EQ(sendDue(), Texts{"OpenStream|Media|100"});
    hear("StreamUp", {"Media", "WRITE"});
    EXPECT_EQ(hear("ChannelDown").connectionChange, false);
    EXPECT_FALSE(view.isUp("Media"));
    EXPECT_EQ(hear("ChannelDown").connectionChange, std::nullopt);
    EXPECT_EQ(hear("ChannelUp").connectionChange, true);
    EXPECT_EQ(sendDue(), Texts{"OpenStream|Media|100"});
    hear("StreamUp", {"Media", "WRITE"});
    hear("VCProcessId", {"78", "1"});
    EXPECT_EQ(view.agentProcessId(), 78u);
    EXPECT_FALSE(view.isUp("Media"));
    EXPECT_TRUE(asksFor("OpenStream|Media|100"));
}

TEST_F(AgentViewOfAnAgentTest, AnAgentThatDoesNotTakeASignOfLifeIsGone) {
    EXPECT_EQ(sendDue(), Texts());
    now += 2s;
    EXPECT_EQ(sendDue(), Texts{""});
    EXPECT_TRUE(view.isConnected());
    view.suspect();
    EXPECT_EQ(sendDue(false), Texts{""});
    EXPECT_EQ(lastChange, false);
    EXPECT_FALSE(view.isConnected());
    EXPECT_EQ(view.agentProcessId(), 0u);
}

TEST_F(AgentViewOfAnAgentTest, AsksAgainAfterTheProcessWasSuspended) {
    now += 60s;
    EXPECT_TRUE(asksFor("RequestVCProcessId"));
}

TEST_F(AgentViewOfAnAgentTest, AKnownProcessIdIsNewsOnlyToThoseWhoAsk) {
    EXPECT_FALSE(hear("VCProcessId", {"77", "1"}).isNews);
    view.expectProcessId();
    EXPECT_TRUE(hear("VCProcessId", {"77", "1"}).isNews);
    EXPECT_FALSE(hear("VCProcessId", {"77", "1"}).isNews);
    EXPECT_TRUE(hear("VCProcessId", {"78", "1"}).isNews);
    EXPECT_TRUE(hear("EnviromentType", {"tcp"}).isNews);
}

TEST_F(AgentViewOfAnAgentTest, AStateThatContradictsWhatIsKnownIsAskedForAgain) {
    EXPECT_EQ(hear("VCProcessId", {"77", "0"}).connectionChange, std::nullopt);
    EXPECT_TRUE(view.isConnected());
    now += 100ms;
    EXPECT_EQ(sendDue(), Texts{"RequestVCProcessId"});
    EXPECT_EQ(hear("VCProcessId", {"77", "1"}).connectionChange, std::nullopt);
    EXPECT_EQ(sendDue(), Texts());
    hear("VCProcessId", {"77", "0"});
    EXPECT_EQ(hear("VCProcessId", {"77", "0"}).connectionChange, false);
    EXPECT_EQ(hear("ChannelUp").connectionChange, true);
    hear("VCProcessId", {"77", "0"});
    EXPECT_TRUE(view.isConnected()) << "composed before the agents met";
}

TEST_F(AgentViewTest, AStateOlderThanTheNewsDoesNotOutliveTheNextQuestion) {
    sendDue();
    hear("ChannelUp");
    hear("VCProcessId", {"77", "0"});
    EXPECT_TRUE(view.isConnected());
    hear("VCProcessId", {"77", "0"});
    EXPECT_FALSE(view.isConnected());
    now += 2s;
    EXPECT_EQ(sendDue(), Texts{"RequestVCProcessId"}) << "the news of a return may be lost";
}

TEST_F(AgentViewOfAnAgentTest, MalformedNewsChangesNothing) {
    view.addStream("Media", Direction::Read, 100);
    for (const auto* name : {"VCProcessId", "StreamUp"}) {
        hear(name);
        hear(name, {"Media"});
    }
    EXPECT_FALSE(view.isUp("Media"));
    EXPECT_EQ(view.agentProcessId(), 77u);
}

}  // namespace
