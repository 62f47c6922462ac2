#include <kestrin/scan/adaptive_yield.hpp>
#include <kestrin/scan/luma_plane.hpp>
#include <kestrin/scan/luma_signature.hpp>
#include <kestrin/scan/refinement.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

namespace kestrin::scan {
namespace {

constexpr core::FrameRate kUnusableRate{0, 1000};
// round(f x 1000) must fit in 64 bits.
constexpr double kLargestScaledRate = 9.0e18;

struct NamedRate
{
    float lowest;
    float highest;
    core::FrameRate rate;
};

// Tested in this order; a single value is a row whose bounds are equal.
constexpr NamedRate kNamedRates[] = {
    {23.975F, 23.977F, {24000, 1001}},
    {24.0F, 24.0F, {24, 1}},
    {25.0F, 25.0F, {25, 1}},
    {29.969F, 29.971F, {30000, 1001}},
    {30.0F, 30.0F, {30, 1}},
    {47.95F, 47.98F, {48000, 1001}},
    {50.0F, 50.0F, {50, 1}},
    {59.93F, 59.95F, {60000, 1001}},
    {60.0F, 60.0F, {60, 1}},
};

// The results of finished refinements, handed from the workers to the calling thread.
class CompletionQueue
{
public:
    struct Completion
    {
        std::size_t slot;
        core::Expected<std::optional<core::EditMarker>> outcome;
    };

    void push(Completion completion)
    {
        {
            const std::lock_guard lock(mutex_);
            completions_.push_back(std::move(completion));
        }
        finished_.notify_one();
    }

    // Blocks until a refinement has finished. Every started refinement finishes (a stop request
    // makes it finish early), so the wait needs no stop token of its own.
    Completion pop()
    {
        std::unique_lock lock(mutex_);
        finished_.wait(lock, [this] { return !completions_.empty(); });
        Completion completion = std::move(completions_.front());
        completions_.pop_front();
        return completion;
    }

private:
    std::mutex mutex_;
    std::condition_variable finished_;
    std::deque<Completion> completions_;  // guarded by mutex_
};

}  // namespace

core::Expected<core::FrameRate> frameRateRational(const media::Track& track)
{
    if (const auto frameDuration = track.minFrameDuration();
        frameDuration && frameDuration->isValid() && frameDuration->value != 0) {
        return core::FrameRate{frameDuration->timescale, frameDuration->value};
    }
    const auto nominal = track.nominalFrameRate();
    if (!nominal) {
        return nominal.error();
    }
    const float rate = *nominal;
    for (const NamedRate& named : kNamedRates) {
        if (rate >= named.lowest && rate <= named.highest) {
            return named.rate;
        }
    }
    const double scaled = static_cast<double>(rate) * 1000.0;
    if (!(scaled > 0.0) || scaled > kLargestScaledRate) {  // also NaN
        return kUnusableRate;
    }
    return core::FrameRate{std::llround(scaled), 1000};
}

std::int64_t frameIndexAt(const core::MediaTime& time, core::FrameRate rate)
{
    const double frames =
        static_cast<double>(time.value) * static_cast<double>(rate.numerator)
            / (static_cast<double>(time.timescale) * static_cast<double>(rate.denominator))
        + 1e-9;
    return static_cast<std::int64_t>(std::floor(frames));
}

core::Expected<std::optional<core::EditMarker>> refineAround(std::int64_t candidateFrame,
                                                             const media::Asset& asset,
                                                             const media::Track& track,
                                                             std::stop_token stopToken,
                                                             int halfWidth,
                                                             int width,
                                                             int height)
{
    const auto rate = frameRateRational(track);
    if (!rate) {
        return rate.error();
    }
    const auto duration = asset.duration();
    if (!duration) {
        return duration.error();
    }
    if (rate->numerator <= 0 || rate->denominator <= 0) {
        return std::optional<core::EditMarker>{};
    }

    const auto range = refinementRange(candidateFrame, *rate, duration->seconds(), halfWidth);

    auto made = makeRefinementReader(asset, track, range, width, height, stopToken);
    if (!made) {
        return made.error();
    }
    const std::unique_ptr<media::FrameReader> reader = std::move(*made);
    if (reader == nullptr) {
        return std::optional<core::EditMarker>{};
    }
    if (!reader->startReading()) {
        if (auto error = reader->error()) {
            return std::move(*error);
        }
        return scan_error::refineStartFailed();
    }

    LumaPlane current(width, height);
    LumaPlane previous(width, height);
    bool hasPrevious = false;
    float best = -1.0F;
    core::MediaTime bestTime = range.start;
    AdaptiveYield pacer;
    while (const auto frame = reader->nextFrame()) {
        if (stopToken.stop_requested()) {
            return scan_error::cancelled();
        }
        pacer.tick();
        if (!extractLumaPlane(*frame, current)) {
            continue;
        }
        if (hasPrevious) {
            const float difference = meanAbsoluteDifference(previous, current);
            if (difference > best) {
                best = difference;
                bestTime = frame->presentationTime;
            }
        }
        std::swap(current, previous);
        hasPrevious = true;
    }
    // The reader ends by itself on a stop request, before the test above sees it.
    if (stopToken.stop_requested()) {
        return scan_error::cancelled();
    }
    if (best < 0.0F) {
        return std::optional<core::EditMarker>{};
    }
    return std::optional<core::EditMarker>{
        core::EditMarker{frameIndexAt(bestTime, *rate), bestTime, std::nullopt}};
}

core::MediaTimeRange refinementRange(std::int64_t candidateFrame,
                                     core::FrameRate rate,
                                     double durationSeconds,
                                     int halfWidth)
{
    const double framesPerSecond =
        static_cast<double>(rate.numerator) / static_cast<double>(rate.denominator);
    const double centreSeconds = static_cast<double>(candidateFrame) / framesPerSecond;
    const double halfSeconds = halfWidth / framesPerSecond;
    const double startSeconds = std::max(centreSeconds - halfSeconds, 0.0);
    // A duration that is not a number leaves the end where the half-width puts it.
    const double endSeconds = std::min(centreSeconds + halfSeconds, durationSeconds);
    return core::MediaTimeRange::fromStartEnd(
        core::MediaTime::fromSeconds(startSeconds, kRefineTimescale),
        core::MediaTime::fromSeconds(endSeconds, kRefineTimescale));
}

std::optional<core::EditMarker> refineFromTimeline(std::int64_t candidateFrame,
                                                   const FrameTimeline& timeline,
                                                   core::FrameRate rate,
                                                   double durationSeconds,
                                                   int halfWidth)
{
    if (rate.numerator <= 0 || rate.denominator <= 0) {
        return std::nullopt;
    }
    const core::MediaTimeRange range =
        refinementRange(candidateFrame, rate, durationSeconds, halfWidth);
    const core::MediaTime rangeStart = range.start;
    const core::MediaTime rangeEnd = range.end();
    const std::vector<TimelineFrame>& frames = timeline.frames();

    // The first frame still shown at the range's start (the ends never decrease).
    auto frame = std::partition_point(frames.begin(), frames.end(), [&](const TimelineFrame& f) {
        return !(f.presentationTime + f.duration > rangeStart);
    });
    float best = -1.0F;
    core::MediaTime bestTime;
    // The first frame in range has no neighbour inside it: its difference is not compared.
    for (bool isFirst = true; frame != frames.end() && frame->presentationTime < rangeEnd;
         ++frame, isFirst = false) {
        if (!isFirst && frame->differenceToPrevious && *frame->differenceToPrevious > best) {
            best = *frame->differenceToPrevious;
            bestTime = frame->presentationTime;
        }
    }
    if (best < 0.0F) {
        return std::nullopt;
    }
    return core::EditMarker{frameIndexAt(bestTime, rate), bestTime, std::nullopt};
}

int refineWidthFor(unsigned processors)
{
    return processors > 3 ? 3 : 2;
}

core::Expected<std::vector<core::EditMarker>> refineCandidates(
    std::span<const std::int64_t> candidateFrames,
    int width,
    const CandidateRefiner& refine,
    const ProgressCallback& reportProgress,
    double& lastProgress,
    std::stop_token stopToken)
{
    std::vector<core::EditMarker> markers;
    const std::size_t total = candidateFrames.size();
    if (total == 0) {
        return markers;
    }

    // Declared so that they are destroyed in the order stated on the workers below: the workers
    // first, then the link from the caller's stop token, then the stop source and the queue.
    CompletionQueue queue;
    std::stop_source stopAll;
    const std::stop_callback followCaller(stopToken, [&stopAll] { stopAll.request_stop(); });
    // One slot per running refinement: when a refinement's result is handled, its thread is joined
    // and the slot's next thread takes the next candidate.
    // Shutdown order: request stop on stopAll, then join every slot; nothing else waits on them.
    std::vector<std::jthread> slots(std::min(static_cast<std::size_t>(std::max(width, 1)), total));

    std::size_t started = 0;
    const auto start = [&](std::size_t slot) {
        slots[slot] = std::jthread(
            [&queue, &refine, slot, frame = candidateFrames[started], token = stopAll.get_token()] {
                // An exception must not leave this thread (it would end the process): it becomes
                // the refinement's error, and so the scan's.
                const auto outcome = [&]() -> core::Expected<std::optional<core::EditMarker>> {
                    try {
                        return refine(frame, token);
                    } catch (const std::exception& exception) {
                        return scan_error::unexpectedFailure(exception.what());
                    } catch (...) {
                        return scan_error::unexpectedFailure("unknown exception");
                    }
                };
                queue.push({slot, outcome()});
            });
        ++started;
    };
    for (std::size_t slot = 0; slot < slots.size(); ++slot) {
        start(slot);
    }

    std::optional<core::Error> firstError;
    for (std::size_t done = 0; done < total;) {
        auto [slot, outcome] = queue.pop();
        slots[slot].join();
        if (!outcome) {
            firstError = outcome.error();
            break;
        }
        if (*outcome) {
            markers.push_back(**outcome);
        }
        ++done;
        const double share =
            kSignatureWeight
            + kRefinementShare * static_cast<double>(done) / static_cast<double>(total);
        lastProgress = std::max(std::min(share, 1.0), lastProgress);
        if (reportProgress) {
            reportProgress(lastProgress);
        }
        if (started < total) {
            start(slot);
        }
    }

    if (firstError) {
        stopAll.request_stop();
        for (std::jthread& worker : slots) {
            if (worker.joinable()) {
                worker.join();
            }
        }
        return *firstError;
    }
    return markers;
}

}  // namespace kestrin::scan
