#include <kestrin/scan/scan_event_stream.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <thread>
#include <vector>

namespace kestrin::scan {
namespace {

std::vector<double> takeFractions(ScanEventStream& events)
{
    std::vector<double> fractions;
    while (const auto event = events.tryNext()) {
        fractions.push_back(event->fraction());
    }
    return fractions;
}

TEST(ScanEventStream, KeepsTheOldestAndCountsTheDropped)
{
    ScanEventStream events;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(events.reportProgress(i / 10.0), i < 8) << i;
    }
    EXPECT_EQ(events.droppedCount(), 2);
    ASSERT_TRUE(events.tryNext());
    EXPECT_TRUE(events.reportProgress(1.0));  // room again once one is taken
    EXPECT_EQ(takeFractions(events), (std::vector{0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 1.0}));
    EXPECT_FALSE(events.hasEnded());
}

TEST(ScanEventStream, FinishKeepsHeldEventsAndRefusesLaterOnes)
{
    ScanEventStream events;
    events.reportMode(true);
    events.finishEvents(0.5);
    EXPECT_FALSE(events.reportProgress(0.75));
    events.finishEvents(1.0);  // already finished: no effect
    EXPECT_EQ(events.droppedCount(), 0);
    EXPECT_TRUE(events.isFinished());
    EXPECT_FALSE(events.hasEnded());

    EXPECT_EQ(events.next()->scanMode(), core::ScanMode::trustedKeyframes);
    EXPECT_EQ(events.next()->fraction(), 0.5);
    EXPECT_FALSE(events.next());
    EXPECT_TRUE(events.hasEnded());
}

TEST(ScanEventStream, LimitsFractionsToTheUnitRange)
{
    ScanEventStream events;
    for (const double fraction : {-0.5, 0.0, 0.25, 1.0, 1.5, std::nan("")}) {
        events.reportProgress(fraction);
    }
    events.finishEvents(7.0);
    EXPECT_EQ(takeFractions(events), (std::vector{0.0, 0.0, 0.25, 1.0, 1.0, 0.0, 1.0}));
}

TEST(ScanEventStream, BlockedConsumerWakesForEventsTheEndAndAStop)
{
    ScanEventStream events;
    std::vector<double> received;
    std::jthread consumer([&] {
        while (const auto event = events.next()) {
            received.push_back(event->fraction());
        }
    });
    events.reportProgress(0.5);
    events.finish();
    consumer.join();
    EXPECT_EQ(received, std::vector{0.5});

    ScanEventStream silent;
    std::optional<core::ProgressEvent> taken = core::ProgressEvent::progress(0.0);
    std::jthread waiter([&](const std::stop_token& stopToken) { taken = silent.next(stopToken); });
    waiter.request_stop();
    waiter.join();
    EXPECT_FALSE(taken);
    EXPECT_FALSE(silent.hasEnded());
}

}  // namespace
}  // namespace kestrin::scan
