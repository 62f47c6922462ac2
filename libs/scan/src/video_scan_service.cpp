#include <kestrin/scan/keyframe_trust.hpp>
#include <kestrin/scan/scan_error.hpp>
#include <kestrin/scan/video_scan_service.hpp>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace kestrin::scan {

using ScanOutcome = core::Expected<std::vector<core::EditMarker>>;

core::Expected<core::ScanMode> decideScanMode(const media::Asset& asset,
                                              const media::Track& track,
                                              const core::Log& log,
                                              const std::stop_token& stop)
{
    const core::Expected<bool> trusted =
        keyframesTrustable(asset, track, KeyframeTrustParameters{}, log, stop);
    if (!trusted) {
        return trusted.error();
    }
    return *trusted ? core::ScanMode::trustedKeyframes : core::ScanMode::noKeyframes;
}

ScanSteps::ScanSteps()
    : decideMode(decideScanMode)
    , detector(defaultDetector())
{}

namespace {

// One scan's steps, run once on its worker thread. Owns copies of everything it calls, so the
// service may go away while it runs.
class ScanFlow
{
public:
    ScanFlow(std::shared_ptr<const media::AssetOpener> opener,
             core::Log log,
             ScanSteps steps,
             std::filesystem::path path,
             std::shared_ptr<ScanEventStream> events)
        : opener_(std::move(opener))
        , log_(std::move(log))
        , steps_(std::move(steps))
        , path_(std::move(path))
        , events_(std::move(events))
    {}

    // Runs the scan to its outcome. Success paths finish the stream themselves (with or without a
    // final progress); error paths leave that to the caller, which finishes it in every case.
    ScanOutcome run(const std::stop_token& stopToken,
                    const std::shared_ptr<ReadLedger>& ledger) const
    {
        try {
            return runSteps(stopToken, ledger);
        } catch (const std::exception& exception) {
            return scan_error::unexpectedFailure(exception.what());
        } catch (...) {
            return scan_error::unexpectedFailure("unknown exception");
        }
    }

private:
    ScanOutcome runSteps(const std::stop_token& stopToken,
                         const std::shared_ptr<ReadLedger>& ledger) const
    {
        // A step interrupted by the stop request may fail with an error of its own (an aborted
        // read, say); the owner asked for the stop, so the scan ends as cancelled all the same.
        if (stopToken.stop_requested()) {
            return scan_error::cancelled();
        }
        const core::Expected<media::AssetPointer> opened = opener_->openAsset(path_, stopToken);
        if (stopToken.stop_requested()) {
            return scan_error::cancelled();
        }
        if (!opened) {
            return opened.error();
        }
        const media::AssetPointer watched = watchReads(*opened, ledger);
        const media::Asset& asset = *watched;

        const core::Expected<std::vector<media::TrackPointer>> videoTracks =
            asset.tracksWithMediaType(media::MediaType::video);
        if (!videoTracks) {
            return videoTracks.error();
        }
        if (videoTracks->empty()) {
            return scan_error::noVideoTrack();
        }
        const media::Track& track = *videoTracks->front();

        if (!steps_.decideMode) {
            return scan_error::stepUnavailable("mode decision");
        }
        const core::Expected<core::ScanMode> mode =
            steps_.decideMode(asset, track, log_, stopToken);
        if (stopToken.stop_requested()) {
            return scan_error::cancelled();
        }
        if (!mode) {
            return mode.error();
        }
        const bool isTrusted = *mode == core::ScanMode::trustedKeyframes;
        log_.line(isTrusted ? "🧭 trusted? true" : "🧭 trusted? false");
        events_->reportMode(*mode);
        return runStages(asset, track, *mode, stopToken);
    }

    // Runs the detector's stages for `mode`, each on the candidates of the one before, and ends
    // the events of a successful scan.
    ScanOutcome runStages(const media::Asset& asset,
                          const media::Track& track,
                          core::ScanMode mode,
                          const std::stop_token& stopToken) const
    {
        const std::vector<DetectionStage>& stages = steps_.detector.stagesFor(mode);
        double totalShare = 0.0;
        for (const DetectionStage& stage : stages) {
            totalShare += std::max(stage.progressShare, 0.0);
        }
        std::vector<core::EditMarker> markers;
        CutEvidenceStore evidence;
        double shareDone = 0.0;
        for (const DetectionStage& stage : stages) {
            if (!stage.run) {
                return scan_error::stepUnavailable("detection stage of " + steps_.detector.name);
            }
            const double share =
                totalShare > 0.0 ? std::max(stage.progressShare, 0.0) / totalShare : 0.0;
            std::optional<core::ScanMode> switchedTo;
            const DetectionContext context{
                .asset = asset,
                .track = track,
                .mode = mode,
                .log = log_,
                .stopToken = stopToken,
                .reportProgress =
                    [events = events_, start = shareDone, share](double fraction) {
                        events->reportProgress(start + std::clamp(fraction, 0.0, 1.0) * share);
                    },
                .switchMode = [&switchedTo](core::ScanMode to) { switchedTo = to; },
                .evidence = evidence,
            };
            core::Expected<std::vector<core::EditMarker>> found =
                stage.run(context, std::move(markers));
            if (stopToken.stop_requested()) {
                return scan_error::cancelled();
            }
            if (!found) {
                return found.error();
            }
            markers = std::move(*found);
            if (switchedTo) {
                events_->reportProgress(1.0);
                events_->reportMode(*switchedTo);
                events_->finishEvents();
                return markers;
            }
            shareDone += share;
        }
        events_->finishEvents(1.0);
        return markers;
    }

    std::shared_ptr<const media::AssetOpener> opener_;
    core::Log log_;
    ScanSteps steps_;
    std::filesystem::path path_;
    std::shared_ptr<ScanEventStream> events_;
};

}  // namespace

struct detail::ScanJob
{
    ScanJob(ScanFlow flow,
            std::shared_ptr<ScanEventStream> scanEvents,
            VideoScanService::Completion onFinished)
        : events(std::move(scanEvents))
    {
        worker = std::jthread([this, flow = std::move(flow), onFinished = std::move(onFinished)](
                                  const std::stop_token& stopToken) {
            const auto ledger = std::make_shared<ReadLedger>();
            ScanOutcome outcome = flow.run(stopToken, ledger);
            events->finish();
            {
                const std::scoped_lock lock(mutex);
                if (outcome) {
                    damage = ledger->damage();
                }
                result.emplace(std::move(outcome));
            }
            finished.notify_all();
            if (onFinished) {
                onFinished();
            }
        });
        stopSource = worker.get_stop_source();
    }

    // Request stop, close the stream, join: the stream is closed before the join so that a
    // consumer blocked on it is released even while the running step winds down.
    ~ScanJob()
    {
        stopSource.request_stop();
        events->finish();
        if (worker.joinable()) {
            worker.join();
        }
    }

    ScanJob(const ScanJob&) = delete;
    ScanJob& operator=(const ScanJob&) = delete;
    ScanJob(ScanJob&&) = delete;
    ScanJob& operator=(ScanJob&&) = delete;

    // Immutable after construction.
    std::shared_ptr<ScanEventStream> events;
    // Immutable after construction; a copy of the worker's, so that a stop may be requested from
    // any thread without touching the thread object.
    std::stop_source stopSource{std::nostopstate};

    std::mutex mutex;
    // Signalled once, when result is set.
    std::condition_variable finished;
    // Guarded by mutex: absent until the scan ends, then never changed.
    std::optional<ScanOutcome> result;
    // Guarded by mutex: set with a successful result.
    core::ReadDamage damage;

    // Owner's thread only: started in the constructor, joined in the destructor.
    std::jthread worker;
};

ScanHandle::ScanHandle(std::unique_ptr<detail::ScanJob> job)
    : job_(std::move(job))
{}

ScanHandle::ScanHandle(ScanHandle&& other) noexcept = default;
ScanHandle& ScanHandle::operator=(ScanHandle&& other) noexcept = default;
ScanHandle::~ScanHandle() = default;

void ScanHandle::requestStop()
{
    job_->stopSource.request_stop();
}

bool ScanHandle::isFinished() const
{
    const std::scoped_lock lock(job_->mutex);
    return job_->result.has_value();
}

ScanOutcome ScanHandle::waitForResult() const
{
    std::unique_lock lock(job_->mutex);
    job_->finished.wait(lock, [this] { return job_->result.has_value(); });
    return *job_->result;
}

core::ReadDamage ScanHandle::damage() const
{
    std::unique_lock lock(job_->mutex);
    job_->finished.wait(lock, [this] { return job_->result.has_value(); });
    return job_->damage;
}

VideoScanService::VideoScanService(std::shared_ptr<const media::AssetOpener> opener,
                                   core::Log log,
                                   ScanSteps steps)
    : opener_(std::move(opener))
    , log_(std::move(log))
    , steps_(std::move(steps))
{}

Scan VideoScanService::scanForEdits(const std::filesystem::path& path, Completion onFinished) const
{
    auto events = std::make_shared<ScanEventStream>();
    ScanFlow flow(opener_, log_, steps_, path, events);
    return Scan{events,
                ScanHandle(std::make_unique<detail::ScanJob>(
                    std::move(flow), events, std::move(onFinished)))};
}

}  // namespace kestrin::scan
