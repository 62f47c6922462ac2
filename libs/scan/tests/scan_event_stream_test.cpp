#include <kestrin/scan/scan_event_stream.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <thread>
#include <vector>

namespace kestrin::scan {
namespace {

TEST(ScanEventStream, KeepsTheOldestLimitsFractionsAndRefusesEventsAfterTheFinish)
{
    ScanEventStream events;
    events.reportMode(core::ScanMode::trustedKeyframes);
    for (int i = 1; i < 10; ++i) {
        EXPECT_EQ(events.reportProgress(i < 3 ? -i : i / 10.0), i < 8) << i;  // -1, -2 become 0
    }
    EXPECT_EQ(events.droppedCount(), 2);
    EXPECT_EQ(events.tryNext()->scanMode(), core::ScanMode::trustedKeyframes);
    EXPECT_TRUE(events.reportProgress(std::nan("")));  // room again once one is taken; NaN is 0
    events.finishEvents(7.0);                          // lost: eight wait
    EXPECT_FALSE(events.reportProgress(0.5));          // finished: refused, not counted
    events.finishEvents(1.0);
    EXPECT_EQ(events.droppedCount(), 3);
    EXPECT_FALSE(events.hasEnded());
    std::vector<double> fractions;
    while (const auto event = events.next()) {
        fractions.push_back(event->fraction());
    }
    EXPECT_EQ(fractions, (std::vector{0.0, 0.0, 0.3, 0.4, 0.5, 0.6, 0.7, 0.0}));
    EXPECT_TRUE(events.hasEnded());

    ScanEventStream roomy;
    roomy.finishEvents(7.0);
    EXPECT_EQ(roomy.next()->fraction(), 1.0);
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

// A consumer that must not block learns of each event and of the end from the wake, including
// what happened before it asked; after it lets go, nothing calls it.
TEST(ScanEventStream, WakesADrainingConsumerForEachEventAndTheFinish)
{
    ScanEventStream events;
    int wakes = 0;
    events.setWake([&] { ++wakes; });
    EXPECT_EQ(wakes, 0) << "nothing held yet";
    events.reportProgress(0.1);
    events.reportProgress(0.2);
    EXPECT_EQ(wakes, 2);

    ScanEventStream busy;
    busy.reportProgress(0.5);
    int busyWakes = 0;
    busy.setWake([&] { ++busyWakes; });
    EXPECT_EQ(busyWakes, 1) << "an event was already held";
    busy.finish();
    busy.finish();
    EXPECT_EQ(busyWakes, 2) << "one wake for the finish";

    events.setWake({});
    events.reportProgress(0.3);
    events.finish();
    EXPECT_EQ(wakes, 2) << "called after it was removed";
}

}  // namespace
}  // namespace kestrin::scan
