#include <kestrin/scan/edit_confirmation.hpp>
#include <kestrin/scan/edit_detection.hpp>
#include <kestrin/scan/keyframe_trust.hpp>
#include <kestrin/scan/scan_error.hpp>
#include <kestrin/scan/video_scan_service.hpp>

#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace kestrin::scan {

using ScanOutcome = core::Expected<std::vector<core::EditMarker>>;

ScanSteps::ScanSteps()
    : decideTrust([](const media::Asset& asset, const media::Track& track, const core::Log& log) {
        return keyframesTrustable(asset, track, KeyframeTrustParameters{}, log);
    })
    , collectSyncs([](const media::Track& track, const core::Log& log) {
        return collectSyncSamplesFast(track, log);
    })
    , confirmEdits([](const media::Asset& asset,
                      const media::Track& track,
                      const std::vector<core::SyncSample>& syncs,
                      const ProgressCallback& reportProgress,
                      const core::Log& log,
                      std::stop_token stopToken) {
        return confirmEditsNearSyncs(asset,
                                     track,
                                     syncs,
                                     ConfirmationParameters{},
                                     reportProgress,
                                     log,
                                     std::move(stopToken));
    })
    , detectEdits([](const media::AssetOpener& opener,
                     const std::filesystem::path& path,
                     const ProgressCallback& reportProgress,
                     std::stop_token stopToken) {
        return detectEditsByDecoding(opener, path, reportProgress, std::move(stopToken));
    })
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
    ScanOutcome run(const std::stop_token& stopToken) const
    {
        try {
            return runSteps(stopToken);
        } catch (const std::exception& exception) {
            return scan_error::unexpectedFailure(exception.what());
        } catch (...) {
            return scan_error::unexpectedFailure("unknown exception");
        }
    }

private:
    ScanOutcome runSteps(const std::stop_token& stopToken) const
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
        const media::Asset& asset = **opened;

        const core::Expected<std::vector<media::TrackPointer>> videoTracks =
            asset.tracksWithMediaType(media::MediaType::video);
        if (!videoTracks) {
            return videoTracks.error();
        }
        if (videoTracks->empty()) {
            return scan_error::noVideoTrack();
        }
        const media::Track& track = *videoTracks->front();

        if (!steps_.decideTrust) {
            return scan_error::stepUnavailable("trust decision");
        }
        const core::Expected<bool> trusted = steps_.decideTrust(asset, track, log_);
        if (stopToken.stop_requested()) {
            return scan_error::cancelled();
        }
        if (!trusted) {
            return trusted.error();
        }
        log_.line(*trusted ? "🧭 trusted? true" : "🧭 trusted? false");
        events_->reportMode(*trusted);

        const ProgressCallback reportProgress = [events = events_](double fraction) {
            events->reportProgress(fraction);
        };
        std::optional<ScanOutcome> markers;
        if (*trusted) {
            if (!steps_.collectSyncs) {
                return scan_error::stepUnavailable("sync-sample collection");
            }
            const core::Expected<std::vector<core::SyncSample>> syncs =
                steps_.collectSyncs(track, log_);
            if (stopToken.stop_requested()) {
                return scan_error::cancelled();
            }
            if (!syncs) {
                return syncs.error();
            }
            if (syncs->empty()) {
                // Nothing to confirm: no edits. Decoding the whole file instead is deliberately
                // not tried; the consumer learns the mode changed and the scan is done.
                events_->reportProgress(1.0);
                events_->reportMode(false);
                events_->finishEvents();
                return std::vector<core::EditMarker>{};
            }
            if (!steps_.confirmEdits) {
                return scan_error::stepUnavailable("edit confirmation");
            }
            markers = steps_.confirmEdits(asset, track, *syncs, reportProgress, log_, stopToken);
        } else {
            if (!steps_.detectEdits) {
                return scan_error::stepUnavailable("full-decode detection");
            }
            markers = steps_.detectEdits(*opener_, path_, reportProgress, stopToken);
        }
        if (stopToken.stop_requested()) {
            return scan_error::cancelled();
        }
        if (*markers) {
            events_->finishEvents(1.0);
        }
        return std::move(*markers);
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
            ScanOutcome outcome = flow.run(stopToken);
            events->finish();
            {
                const std::scoped_lock lock(mutex);
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
