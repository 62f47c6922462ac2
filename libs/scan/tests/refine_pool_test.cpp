#include <kestrin/scan/refinement.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace kestrin::scan {
namespace {

using core::EditMarker;
using Frames = std::vector<std::int64_t>;
using Outcome = core::Expected<std::optional<EditMarker>>;

// refineCandidates over `candidates` on a thread of its own, with refinements that each block until
// the test releases their frame, then give the scripted outcome (by default a marker on the frame).
// The thread's stop token is the pool's, and a stop also ends a refinement's wait with the
// cancellation error: destroying this (also after a failed assertion) stops and joins the pool.
struct ScriptedRefinements
{
    ScriptedRefinements(Frames candidates, int width, std::map<std::int64_t, Outcome> outcomes = {})
        : script(std::move(outcomes))
        , pool([this, frames = std::move(candidates), width](std::stop_token token) {
            result = refineCandidates(
                frames, width, std::ref(*this), std::ref(*this), lastProgress, token);
        })
    {}

    // The refiner.
    Outcome operator()(std::int64_t frame, std::stop_token token)
    {
        std::unique_lock lock(mutex);
        started.push_back(frame);
        mostRunning = std::max(mostRunning, ++running);
        changed.notify_all();
        const bool free = changed.wait(lock, token, [&] { return released.contains(frame); });
        --running;
        script.try_emplace(frame, EditMarker{frame, {}, std::nullopt});
        return free ? script.at(frame) : Outcome(scan_error::cancelled());
    }

    // The progress callback.
    void operator()(double progress) { note(reports, progress); }

    // Adds `value` to `into`, a release or a progress value, and wakes the waiters.
    void note(auto& into, auto value)
    {
        const std::lock_guard lock(mutex);
        into.insert(into.end(), value);
        changed.notify_all();
    }

    // Waits for `starts` refinements to have started and `count` progress values; gives the
    // frames started, in start order.
    Frames waitFor(std::size_t starts, std::size_t count)
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return started.size() >= starts && reports.size() >= count; });
        return started;
    }

    std::map<std::int64_t, Outcome> script;
    std::mutex mutex;
    std::condition_variable_any changed;
    // Guarded by mutex until the pool has joined.
    std::set<std::int64_t> released;
    Frames started;
    std::vector<double> reports;
    int running = 0;
    int mostRunning = 0;
    // Above what the first completion gives, so progress must not fall back to it.
    double lastProgress = 0.5;
    core::Expected<std::vector<EditMarker>> result = std::vector<EditMarker>{};
    std::jthread pool;  // last: it starts once everything else exists
};

TEST(RefinePool, RunsAtMostWidthInCompletionOrderAndStopsAtTheFirstErrorOrTheCallersStop)
{
    // Frame 30 finds no marker; it still counts towards progress.
    ScriptedRefinements run({10, 20, 30, 40, 50, 60}, 3, {{30, Outcome(std::nullopt)}});
    EXPECT_TRUE(std::ranges::is_permutation(run.waitFor(3, 0), Frames{10, 20, 30}));
    // Each completion, once handled, lets the next in frame order start.
    const std::int64_t releases[] = {20, 40, 10, 60, 30, 50};
    for (std::size_t done = 1; done <= 6; ++done) {
        run.note(run.released, releases[done - 1]);
        run.waitFor(std::min<std::size_t>(done + 3, 6), done);
    }
    run.pool.join();
    ASSERT_TRUE(run.result);
    EXPECT_EQ(Frames(run.started.begin() + 3, run.started.end()), (Frames{40, 50, 60}));
    Frames found;
    std::ranges::transform(*run.result, std::back_inserter(found), &EditMarker::frameIndex);
    EXPECT_EQ(found, (Frames{20, 40, 10, 60, 50}));
    EXPECT_EQ(run.mostRunning, 3);
    for (std::size_t done = 1; done <= 6; ++done) {
        const double share = 0.3 + 0.7 * static_cast<double>(done) / 6.0;
        EXPECT_NEAR(run.reports[done - 1], std::max(share, 0.5), 1e-12) << done;
    }
    EXPECT_EQ(run.lastProgress, run.reports.back());

    const core::Error failure{"FFmpeg", -5, "Input/output error"};
    for (const bool callerStops : {false, true}) {
        ScriptedRefinements failing({10, 20, 30, 40}, 2, {{20, failure}});
        EXPECT_TRUE(std::ranges::is_permutation(failing.waitFor(2, 0), Frames{10, 20}));
        // Either 20 fails or the caller stops; 10 stays blocked until the pool stops it.
        failing.note(failing.released, callerStops ? 0 : 20);
        if (callerStops) {
            failing.pool.request_stop();
        }
        failing.pool.join();
        ASSERT_FALSE(failing.result);
        EXPECT_EQ(failing.result.error(), callerStops ? scan_error::cancelled() : failure);
        EXPECT_EQ(failing.started.size(), 2U);  // 30 and 40 never started
        EXPECT_TRUE(failing.reports.empty());
    }
}

// A refinement that throws ends the scan with an error value, not the process.
TEST(RefinePool, AnExceptionInARefinementBecomesTheError)
{
    double lastProgress = 0;
    const auto result =
        refineCandidates(Frames{10, 20, 30},
                         2,
                         [](std::int64_t frame, const std::stop_token&) -> Outcome {
                             if (frame == 20) {
                                 throw std::runtime_error("bad frame");
                             }
                             return std::optional(EditMarker{frame, {}, std::nullopt});
                         },
                         {},
                         lastProgress,
                         {});
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(), scan_error::unexpectedFailure("bad frame"));
}

}  // namespace
}  // namespace kestrin::scan
