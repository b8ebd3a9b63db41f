#include "AgentView.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using namespace NorvoStreamClient;
using testing::ElementsAre;
using testing::IsEmpty;

class AgentViewTest : public testing::Test {
protected:
    // Everything due now, each taken (or not) by the agent at once.
    std::vector<std::string> sendDue(bool taken = true) {
        std::vector<std::string> texts;
        while (texts.size() < 20) {
            const auto due = view.due(now);
            if (!due) break;
            texts.push_back(due->text);
            lastChange = view.finished(*due, taken, now);
        }
        return texts;
    }
    AgentView::Heard hear(const std::string& name, std::vector<std::string> fields = {}) {
        return view.hear({name, std::move(fields)}, now);
    }
    void meetAgent() {
        sendDue();
        hear("VCProcessId", {"77", "1"});
        sendDue();
    }

    AgentView view;
    Clock::time_point now = Clock::now();
    std::optional<bool> lastChange;
};

TEST_F(AgentViewTest, ProbesForAnAgentBeforeItAsksForStreams) {
    view.addStream("Media", Direction::Read, 100);
    EXPECT_THAT(sendDue(false), ElementsAre("RequestVCProcessId"));
    now += 100ms;
    EXPECT_THAT(sendDue(false), IsEmpty());
    now += 500ms;
    EXPECT_THAT(sendDue(), ElementsAre("RequestVCProcessId", "CreateStream|Media|100"));
}

TEST_F(AgentViewTest, NamesStreamsFromTheCallersSide) {
    meetAgent();
    view.addStream("In", Direction::Read, 1000);
    view.addStream("Out", Direction::Write, 2000);
    EXPECT_THAT(sendDue(),
                ElementsAre("CreateStream|In|1000", "OpenStream|Out|2000", "RequestNotifyStream"));
}

TEST_F(AgentViewTest, RepeatsARequestUntilTheStreamIsUp) {
    meetAgent();
    view.addStream("Media", Direction::Write, 100);
    sendDue();
    now += 3s;
    EXPECT_THAT(sendDue(), testing::Contains("OpenStream|Media|100"));
    hear("StreamUp", {"Media", "WRITE"});
    EXPECT_TRUE(view.isUp("Media"));
    now += 10s;
    EXPECT_THAT(sendDue(), testing::Not(testing::Contains("OpenStream|Media|100")));
}

TEST_F(AgentViewTest, AStreamThatIsOpenedAnewWhileItsOldRequestIsUnderWayIsAskedForAtOnce) {
    meetAgent();
    view.addStream("Media", Direction::Write, 100);
    const auto old = view.due(now);
    ASSERT_TRUE(old);
    view.removeStream("Media");
    view.addStream("Media", Direction::Read, 100);
    view.finished(*old, true, now);
    EXPECT_THAT(sendDue(), testing::Contains("CreateStream|Media|100"));
}

TEST_F(AgentViewTest, CallsTheRollEverMoreRarelyWhileAStreamIsDown) {
    meetAgent();
    view.addStream("Media", Direction::Write, 100);
    int calls = 0;
    for (int i = 0; i < 290; ++i) {
        for (const auto& text : sendDue()) calls += text == "RequestNotifyStream";
        now += 10ms;
    }
    EXPECT_GE(calls, 6);
    EXPECT_LE(calls, 9);
}

TEST_F(AgentViewTest, AStreamOfTheOtherDirectionIsNotOurs) {
    meetAgent();
    view.addStream("Media", Direction::Write, 100);
    hear("StreamUp", {"Media", "READ"});
    EXPECT_FALSE(view.isUp("Media"));
}

TEST_F(AgentViewTest, ALostConnectionTakesTheStreamsDownAndANewOneAsksForThemAgain) {
    meetAgent();
    view.addStream("Media", Direction::Write, 100);
    sendDue();
    hear("StreamUp", {"Media", "WRITE"});
    EXPECT_EQ(hear("ChannelDown").connectionChange, false);
    EXPECT_FALSE(view.isUp("Media"));
    EXPECT_EQ(hear("ChannelDown").connectionChange, std::nullopt);
    EXPECT_EQ(hear("ChannelUp").connectionChange, true);
    EXPECT_THAT(sendDue(), ElementsAre("OpenStream|Media|100", "RequestNotifyStream"));
}

TEST_F(AgentViewTest, ANewAgentProcessIsAskedForEverything) {
    meetAgent();
    view.addStream("Media", Direction::Write, 100);
    sendDue();
    hear("StreamUp", {"Media", "WRITE"});
    hear("VCProcessId", {"78", "1"});
    EXPECT_EQ(view.agentProcessId(), 78u);
    EXPECT_FALSE(view.isUp("Media"));
    EXPECT_THAT(sendDue(), testing::Contains("OpenStream|Media|100"));
}

TEST_F(AgentViewTest, AnAgentThatLeavesASignOfLifeLieIsGone) {
    meetAgent();
    EXPECT_THAT(sendDue(), IsEmpty());
    now += 2s;
    EXPECT_THAT(sendDue(), ElementsAre(""));
    EXPECT_TRUE(view.isConnected());
    view.suspect();
    EXPECT_THAT(sendDue(false), ElementsAre(""));
    EXPECT_EQ(lastChange, false);
    EXPECT_FALSE(view.isConnected());
    EXPECT_EQ(view.agentProcessId(), 0u);
}

TEST_F(AgentViewTest, AKnownProcessIdIsNewsOnlyToThoseWhoAsk) {
    meetAgent();
    EXPECT_FALSE(hear("VCProcessId", {"77", "1"}).isNews);
    view.expectProcessId();
    EXPECT_TRUE(hear("VCProcessId", {"77", "1"}).isNews);
    EXPECT_FALSE(hear("VCProcessId", {"77", "1"}).isNews);
    EXPECT_TRUE(hear("VCProcessId", {"78", "1"}).isNews);
    EXPECT_TRUE(hear("EnviromentType", {"tcp"}).isNews);
}

TEST_F(AgentViewTest, AStateThatContradictsWhatIsKnownIsAskedForAgain) {
    meetAgent();
    EXPECT_EQ(hear("VCProcessId", {"77", "0"}).connectionChange, std::nullopt);
    EXPECT_TRUE(view.isConnected());
    now += 100ms;
    EXPECT_THAT(sendDue(), ElementsAre("RequestVCProcessId"));
    EXPECT_EQ(hear("VCProcessId", {"77", "1"}).connectionChange, std::nullopt);
    EXPECT_THAT(sendDue(), IsEmpty());
    hear("VCProcessId", {"77", "0"});
    EXPECT_EQ(hear("VCProcessId", {"77", "0"}).connectionChange, false);
    EXPECT_EQ(hear("ChannelUp").connectionChange, true);
    hear("VCProcessId", {"77", "0"});
    EXPECT_TRUE(view.isConnected()) << "composed before the agents met";
}

TEST_F(AgentViewTest, AsksAnewAfterTheProcessWasSuspended) {
    meetAgent();
    now += 1s;
    EXPECT_THAT(sendDue(), IsEmpty());
    now += 60s;
    EXPECT_THAT(sendDue(), testing::Contains("RequestVCProcessId"));
}

TEST_F(AgentViewTest, MalformedNewsChangesNothing) {
    meetAgent();
    view.addStream("Media", Direction::Read, 100);
    for (const auto* name : {"VCProcessId", "StreamUp"}) {
        hear(name);
        hear(name, {"Media"});
    }
    EXPECT_FALSE(view.isUp("Media"));
    EXPECT_EQ(view.agentProcessId(), 77u);
}

}  // namespace
