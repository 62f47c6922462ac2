#include <kestrin/scan/refinement.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace kestrin::scan {
namespace {

using core::EditMarker;
using core::Error;
using Outcome = core::Expected<std::optional<EditMarker>>;

struct Seen
{
    std::vector<std::int64_t> started;  // in start order
    std::vector<double> reports;
    int mostRunning = 0;
};

// Refinements that each block until the test releases their candidate, then give the scripted
// outcome (by default a marker on the candidate frame). A stop request also ends the wait, with the
// cancellation error, so a failing test cannot leave a worker blocked.
class ScriptedRefinements
{
public:
    explicit ScriptedRefinements(std::map<std::int64_t, Outcome> script = {})
        : script_(std::move(script))
    {}

    CandidateRefiner refiner()
    {
        return [this](std::int64_t frame, std::stop_token token) -> Outcome {
            std::unique_lock lock(mutex_);
            seen_.started.push_back(frame);
            seen_.mostRunning = std::max(seen_.mostRunning, ++running_);
            changed_.notify_all();
            const bool released =
                changed_.wait(lock, token, [&] { return released_.contains(frame); });
            --running_;
            if (!released) {
                return scan_error::cancelled();
            }
            const auto scripted = script_.find(frame);
            return scripted != script_.end()
                       ? scripted->second
                       : Outcome(EditMarker{frame, core::MediaTime::make(frame, 25), std::nullopt});
        };
    }

    ProgressCallback progress()
    {
        return [this](double p) {
            const std::lock_guard lock(mutex_);
            seen_.reports.push_back(p);
            changed_.notify_all();
        };
    }

    void release(std::int64_t frame)
    {
        const std::lock_guard lock(mutex_);
        released_.insert(frame);
        changed_.notify_all();
    }

    // Waits until `starts` refinements have started and `reports` progress values were reported.
    Seen waitFor(std::size_t starts, std::size_t reports)
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] {
            return seen_.started.size() >= starts && seen_.reports.size() >= reports;
        });
        return seen_;
    }

private:
    std::map<std::int64_t, Outcome> script_;
    std::mutex mutex_;
    std::condition_variable_any changed_;
    // All guarded by mutex_.
    Seen seen_;
    std::set<std::int64_t> released_;
    int running_ = 0;
};

// Runs refineCandidates on a thread of its own, so that the test can drive the refinements. Its
// stop token is the pool's: destroying the run (also on a failed assertion) stops and joins it.
struct PoolRun
{
    PoolRun(std::vector<std::int64_t> frames, int width, ScriptedRefinements& refinements)
        : candidates(std::move(frames))
        , thread([this, width, &refinements](std::stop_token token) {
            result = refineCandidates(candidates,
                                      width,
                                      refinements.refiner(),
                                      refinements.progress(),
                                      lastProgress,
                                      std::move(token));
        })
    {}

    // The outcome, once the pool has returned.
    core::Expected<std::vector<EditMarker>> finish()
    {
        thread.join();
        return result;
    }

    std::vector<std::int64_t> candidates;
    double lastProgress = 0.3;
    core::Expected<std::vector<EditMarker>> result = std::vector<EditMarker>{};
    std::jthread thread;
};

std::vector<std::int64_t> sorted(std::vector<std::int64_t> frames)
{
    std::ranges::sort(frames);
    return frames;
}

TEST(RefinePool, RunsAtMostWidthInCompletionOrderAndStopsAtTheFirstErrorOrTheCallersStop)
{
    // Frame 30 finds no marker; it still counts towards progress.
    ScriptedRefinements refinements({{30, Outcome(std::optional<EditMarker>{})}});
    PoolRun run({10, 20, 30, 40, 50, 60}, 3, refinements);

    EXPECT_EQ(sorted(refinements.waitFor(3, 0).started), (std::vector<std::int64_t>{10, 20, 30}));
    // Each release lets one more start, the next in frame order, once its result was handled.
    std::size_t reports = 0;
    const std::pair<std::int64_t, std::int64_t> steps[] = {{20, 40}, {40, 50}, {10, 60}};
    for (const auto& [release, next] : steps) {
        refinements.release(release);
        ++reports;
        EXPECT_EQ(refinements.waitFor(reports + 3, reports).started.back(), next);
    }
    for (const std::int64_t release : {60, 30, 50}) {
        refinements.release(release);
        refinements.waitFor(6, ++reports);
    }

    const auto markers = run.finish();
    ASSERT_TRUE(markers);
    std::vector<std::int64_t> frames(markers->size());
    std::ranges::transform(*markers, frames.begin(), &EditMarker::frameIndex);
    EXPECT_EQ(frames, (std::vector<std::int64_t>{20, 40, 10, 60, 50}));
    const Seen seen = refinements.waitFor(6, 6);
    EXPECT_EQ(seen.started.size(), 6U);
    EXPECT_EQ(seen.mostRunning, 3);
    for (std::size_t done = 1; done <= 6; ++done) {
        EXPECT_NEAR(seen.reports[done - 1], 0.3 + 0.7 * static_cast<double>(done) / 6.0, 1e-12);
    }
    EXPECT_EQ(run.lastProgress, seen.reports.back());

    const Error failure{"FFmpeg", -5, "Input/output error"};
    for (const bool callerStops : {false, true}) {
        ScriptedRefinements failing({{20, Outcome(failure)}});
        PoolRun stopped({10, 20, 30, 40}, 2, failing);
        EXPECT_EQ(sorted(failing.waitFor(2, 0).started), (std::vector<std::int64_t>{10, 20}));
        if (callerStops) {
            stopped.thread.request_stop();
        } else {
            failing.release(20);  // 10 stays blocked until the pool stops it
        }
        const auto result = stopped.finish();
        ASSERT_FALSE(result);
        EXPECT_EQ(result.error(), callerStops ? scan_error::cancelled() : failure);
        const Seen left = failing.waitFor(0, 0);
        EXPECT_EQ(left.started.size(), 2U);  // 30 and 40 never started
        EXPECT_TRUE(left.reports.empty());
    }
}

}  // namespace
}  // namespace kestrin::scan
