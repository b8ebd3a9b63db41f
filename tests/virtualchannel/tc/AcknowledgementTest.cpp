#include "Acknowledgement.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using NorvoVirtualChannel::tc::Acknowledgement;
using testsupport::LogCapture;

namespace {

// Starts a wait for `ack`, calls `answer` until it returns that it reached the waiter, and returns
// the wait's result.
int waitAnsweredBy(Acknowledgement& waiter, int ack, const std::function<bool()>& answer) {
    auto result = std::async(std::launch::async, [&] { return waiter.WaitForAck(ack); });
    EXPECT_TRUE(testsupport::eventually(answer));
    return result.get();
}

}  // namespace

TEST(AcknowledgementTest, OnlyTheExactTextOrClearingEndsTheWait) {
    LogCapture log;
    Acknowledgement waiter(60s);
    EXPECT_EQ(waitAnsweredBy(waiter, 42, [&] { return waiter.CheckAck("42...", 2) == 0; }), 0);
    const auto answerAfterWrongOnes = [&] {
        for (const std::string text : {"07", "8", "77", "", "7 ", "-7"}) {
            EXPECT_EQ(waiter.CheckAck(text.data(), static_cast<unsigned int>(text.size())), -1);
        }
        EXPECT_EQ(waiter.CheckAck(nullptr, 1), -1);
        return waiter.CheckAck("7", 1) == 0;
    };
    EXPECT_EQ(waitAnsweredBy(waiter, 7, answerAfterWrongOnes), 0);
    EXPECT_EQ(waiter.CheckAck("-1", 2), -1);
    waiter.ClearCurrentAck();  // of nobody
    const auto clear = [&] {
        waiter.ClearCurrentAck();
        return log.contains("Signalling ACK to clear the wait.");
    };
    EXPECT_EQ(waitAnsweredBy(waiter, 7, clear), 0);
}

TEST(AcknowledgementTest, AWaitNobodyAnswersTimesOutAndShutdownMakesRoomForANewWaiter) {
    const auto waiter = Acknowledgement::GetInstance();
    EXPECT_EQ(Acknowledgement::GetInstance(), waiter);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(waiter->WaitForAck(3), 60);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_EQ(waiter->CheckAck("3", 1), -1);

    Acknowledgement::Shutdown();
    Acknowledgement::Shutdown();
    EXPECT_NE(Acknowledgement::GetInstance(), waiter);
    waiter->ClearCurrentAck();
}
