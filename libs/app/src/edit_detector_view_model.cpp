#include <kestrin/app/edit_detector_view_model.hpp>
#include <kestrin/midi/standard_midi_export_service.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <QMetaObject>

#include <algorithm>
#include <cctype>
#include <system_error>
#include <utility>

namespace kestrin::app {

EditDetectorViewModel::EditDetectorViewModel(std::shared_ptr<const media::AssetOpener> opener,
                                             core::Log log,
                                             ViewModelServices services,
                                             QObject* parent)
    : QObject(parent)
    , opener_(std::move(opener))
    , log_(std::move(log))
    , scanService_(services.scanService
                       ? std::move(services.scanService)
                       : std::make_shared<const scan::VideoScanService>(opener_, log_))
    , midiService_(services.midiService ? std::move(services.midiService)
                                        : std::make_unique<midi::StandardMIDIExportService>())
    , timers_(services.timers ? std::move(services.timers) : makeQtTimerSource())
{
    // Each pipeline's result is stored on the next turn of the event loop, never from inside the
    // setter or timer that produced it.
    sessionValidation_.emplace(
        *timers_,
        kDebounceInterval,
        sessionStartDigits_,
        nominalFPS_,
        dropFrameSources(),
        [this](bool isValid) {
            QMetaObject::invokeMethod(
                this, [this, isValid] { storeSessionTCValid(isValid); }, Qt::QueuedConnection);
        });
    videoValidation_.emplace(
        *timers_,
        kDebounceInterval,
        videoStartDigits_,
        nominalFPS_,
        dropFrameSources(),
        [this](bool isValid) {
            QMetaObject::invokeMethod(
                this, [this, isValid] { storeVideoTCValid(isValid); }, Qt::QueuedConnection);
        });
    // The pipelines' first results come one quiet period from now; until then the flags must
    // already be right.
    revalidateTimecodes();
}

EditDetectorViewModel::~EditDetectorViewModel()
{
    // Ask everything to stop first, so that the threads wind down side by side, then join. What
    // they post meanwhile is discarded with the QObject.
    if (scanTask_) {
        scanTask_->handle.requestStop();
    }
    for (ScanJob& job : retiredScans_) {
        job.handle.requestStop();
    }
    for (auto& [id, loader] : videoInfoLoaders_) {
        loader.request_stop();
    }
    scanTask_.reset();
    retiredScans_.clear();
    dropEvents();
    videoInfoLoaders_.clear();
}

// Properties.

template <typename T, typename Signal>
bool EditDetectorViewModel::store(T& field, T value, Signal changed)
{
    if (value == field) {
        return false;
    }
    field = std::move(value);
    emit(this->*changed)(field);
    return true;
}

const std::optional<std::filesystem::path>& EditDetectorViewModel::selectedURL() const
{
    return selectedURL_;
}

void EditDetectorViewModel::setSelectedURL(const std::optional<std::filesystem::path>& url)
{
    store(selectedURL_, url, &EditDetectorViewModel::selectedURLChanged);
}

core::FrameRate EditDetectorViewModel::nominalFPS() const
{
    return nominalFPS_;
}

void EditDetectorViewModel::setNominalFPS(core::FrameRate rate)
{
    if (store(nominalFPS_, rate, &EditDetectorViewModel::nominalFPSChanged)) {
        sessionValidation_->rateChanged(rate);
        videoValidation_->rateChanged(rate);
    }
}

std::optional<bool> EditDetectorViewModel::detectedIsDropFrame() const
{
    return detectedIsDropFrame_;
}

void EditDetectorViewModel::setDetectedIsDropFrame(std::optional<bool> detected)
{
    if (store(detectedIsDropFrame_, detected, &EditDetectorViewModel::detectedIsDropFrameChanged)) {
        sessionValidation_->detectedIsDropFrameChanged(detected);
        videoValidation_->detectedIsDropFrameChanged(detected);
    }
}

std::optional<bool> EditDetectorViewModel::userPrefersDropFrame() const
{
    return userPrefersDropFrame_;
}

void EditDetectorViewModel::setUserPrefersDropFrame(std::optional<bool> preferred)
{
    if (store(userPrefersDropFrame_,
              preferred,
              &EditDetectorViewModel::userPrefersDropFrameChanged)) {
        sessionValidation_->userPrefersDropFrameChanged(preferred);
        videoValidation_->userPrefersDropFrameChanged(preferred);
    }
}

const std::vector<core::EditMarker>& EditDetectorViewModel::markers() const
{
    return markers_;
}

void EditDetectorViewModel::setMarkers(std::vector<core::EditMarker> markers)
{
    store(markers_, std::move(markers), &EditDetectorViewModel::markersChanged);
}

bool EditDetectorViewModel::isProcessing() const
{
    return isProcessing_;
}

void EditDetectorViewModel::setIsProcessing(bool isProcessing)
{
    store(isProcessing_, isProcessing, &EditDetectorViewModel::isProcessingChanged);
}

bool EditDetectorViewModel::scanLEDisOn() const
{
    return scanLEDisOn_;
}

void EditDetectorViewModel::setScanLEDisOn(bool isOn)
{
    store(scanLEDisOn_, isOn, &EditDetectorViewModel::scanLEDisOnChanged);
}

double EditDetectorViewModel::progress() const
{
    return progress_;
}

void EditDetectorViewModel::setProgress(double progress)
{
    store(progress_, progress, &EditDetectorViewModel::progressChanged);
}

bool EditDetectorViewModel::isKeyframesTrusted() const
{
    return isKeyframesTrusted_;
}

void EditDetectorViewModel::setIsKeyframesTrusted(bool isTrusted)
{
    store(isKeyframesTrusted_, isTrusted, &EditDetectorViewModel::isKeyframesTrustedChanged);
}

const std::optional<std::string>& EditDetectorViewModel::errorMessage() const
{
    return errorMessage_;
}

const std::optional<std::string>& EditDetectorViewModel::scanWarning() const
{
    return scanWarning_;
}

void EditDetectorViewModel::setScanWarning(const std::optional<std::string>& text)
{
    store(scanWarning_, text, &EditDetectorViewModel::scanWarningChanged);
}

void EditDetectorViewModel::setErrorMessage(const std::optional<std::string>& message)
{
    store(errorMessage_, message, &EditDetectorViewModel::errorMessageChanged);
}

const std::string& EditDetectorViewModel::sessionStartDigits() const
{
    return sessionStartDigits_;
}

void EditDetectorViewModel::setSessionStartDigits(const std::string& digits)
{
    if (store(sessionStartDigits_, digits, &EditDetectorViewModel::sessionStartDigitsChanged)) {
        sessionValidation_->digitsChanged(digits);
    }
}

const std::string& EditDetectorViewModel::videoStartDigits() const
{
    return videoStartDigits_;
}

void EditDetectorViewModel::setVideoStartDigits(const std::string& digits)
{
    if (store(videoStartDigits_, digits, &EditDetectorViewModel::videoStartDigitsChanged)) {
        videoValidation_->digitsChanged(digits);
    }
}

const std::string& EditDetectorViewModel::markerName() const
{
    return markerName_;
}

void EditDetectorViewModel::setMarkerName(const std::string& pattern)
{
    store(markerName_, pattern, &EditDetectorViewModel::markerNameChanged);
}

bool EditDetectorViewModel::isSessionTCValid() const
{
    return isSessionTCValid_;
}

void EditDetectorViewModel::storeSessionTCValid(bool isValid)
{
    // Logged on every store, also when the value stays the same.
    log_.line(std::string("🔵 isSessionTCValid changed → ") + (isValid ? "true" : "false"));
    // Announced on every store too: a timecode field shows its own verdict while the user types
    // and takes the view model's back whenever one is stored, even an unchanged one.
    isSessionTCValid_ = isValid;
    emit isSessionTCValidChanged(isValid);
}

bool EditDetectorViewModel::isVideoTCValid() const
{
    return isVideoTCValid_;
}

void EditDetectorViewModel::storeVideoTCValid(bool isValid)
{
    log_.line(std::string("🟢 isVideoTCValid changed → ") + (isValid ? "true" : "false"));
    isVideoTCValid_ = isValid;  // announced on every store, as above
    emit isVideoTCValidChanged(isValid);
}

// Rules.

DropFrameSources EditDetectorViewModel::dropFrameSources() const
{
    return {.userPrefersDropFrame = userPrefersDropFrame_,
            .detectedIsDropFrame = detectedIsDropFrame_};
}

bool EditDetectorViewModel::canStartScan() const
{
    return selectedURL_.has_value() && isSessionTCValid_ && isVideoTCValid_ && !isProcessing_;
}

bool EditDetectorViewModel::canExport() const
{
    return !markers_.empty() && isSessionTCValid_ && isVideoTCValid_ && !isProcessing_;
}

bool EditDetectorViewModel::isDropFrameApplicable() const
{
    return nominalFPS_.allowsDropFrame();
}

bool EditDetectorViewModel::isDropFrame() const
{
    return effectiveDropFrame(nominalFPS_);
}

bool EditDetectorViewModel::effectiveDropFrame(core::FrameRate rate) const
{
    return app::effectiveDropFrame(rate, dropFrameSources());
}

void EditDetectorViewModel::revalidateTimecodes()
{
    storeSessionTCValid(isValidTimecode(sessionStartDigits_, nominalFPS_, dropFrameSources()));
    storeVideoTCValid(isValidTimecode(videoStartDigits_, nominalFPS_, dropFrameSources()));
}

core::Expected<std::vector<std::uint8_t>> EditDetectorViewModel::makeMIDIData()
{
    const MarkerExport request{.markers = markers_,
                               .rate = nominalFPS_,
                               .dropFrame = dropFrameSources(),
                               .sessionStartDigits = sessionStartDigits_,
                               .videoStartDigits = videoStartDigits_,
                               .markerName = markerName_};
    return app::makeMIDIData(request, *midiService_);
}

// File information.

void EditDetectorViewModel::loadVideoInfo(const std::filesystem::path& path)
{
    const std::uint64_t loaderId = nextLoaderId_++;
    // The media work (opening the file, reading its tracks) happens off the interface thread; the
    // result comes back by a queued call. The destructor stops and joins the thread before the
    // QObject goes, so `this` outlives the thread's last use of it.
    videoInfoLoaders_.emplace(
        loaderId,
        std::jthread([this, loaderId, opener = opener_, path](const std::stop_token& stopToken) {
            core::Expected<VideoInfo> info = app::loadVideoInfo(*opener, path, stopToken);
            QMetaObject::invokeMethod(
                this,
                [this, loaderId, info = std::move(info)] { videoInfoLoaded(loaderId, info); },
                Qt::QueuedConnection);
        }));
}

void EditDetectorViewModel::videoInfoLoaded(std::uint64_t loaderId,
                                            const core::Expected<VideoInfo>& info)
{
    // The thread posted this as its last act, so the join returns at once.
    videoInfoLoaders_.erase(loaderId);
    if (!info) {
        setErrorMessage(info.error().description);
        setDetectedIsDropFrame(std::nullopt);
        return;
    }
    if (info->frameRate) {
        setNominalFPS(*info->frameRate);
    }
    setDetectedIsDropFrame(info->detectedIsDropFrame);
}

// Scanning.

void EditDetectorViewModel::cancelScan()
{
    ++generation_;
    dropEvents();
    if (scanTask_) {
        // Not joined here: the worker may be in the middle of a decoded frame. It is joined when
        // its completion arrives.
        scanTask_->handle.requestStop();
        retiredScans_.push_back(std::move(*scanTask_));
        scanTask_.reset();
    }
    setIsProcessing(false);
    setScanLEDisOn(false);
    setIsKeyframesTrusted(false);
    setProgress(0.0);
}

void EditDetectorViewModel::startScan()
{
    if (!selectedURL_) {
        setErrorMessage("No video selected.");
        return;
    }
    cancelScan();
    setProgress(0.0);
    setMarkers({});
    setErrorMessage(std::nullopt);
    setScanWarning(std::nullopt);
    setIsProcessing(true);
    setScanLEDisOn(true);
    const std::uint64_t generation = generation_;
    // The scan body runs on a later turn of the loop, as a task of the interface thread would;
    // a view model destroyed before then drops the call.
    QMetaObject::invokeMethod(
        this,
        [this, generation, path = *selectedURL_] { runScanBody(generation, path); },
        Qt::QueuedConnection);
}

void EditDetectorViewModel::runScanBody(std::uint64_t generation, const std::filesystem::path& path)
{
    if (generation != generation_) {
        // Cancelled, or superseded by a newer startScan, before it began. Starting the scan now
        // would only have it stopped at once, and storing its handles would replace (or cancel)
        // the newer scan's; it ends as a cancelled scan does.
        logScanEnd();
        return;
    }
    std::optional<scan::Scan> started;
    try {
        // The completion runs on the scan's worker thread; the handle is joined in
        // scanFinished() or in the destructor, so `this` outlives that call.
        started.emplace(scanService_->scanForEdits(path, [this, generation] {
            QMetaObject::invokeMethod(
                this, [this, generation] { scanFinished(generation); }, Qt::QueuedConnection);
        }));
    } catch (const std::system_error& error) {
        setErrorMessage(error.what());
        setIsProcessing(false);
        logScanEnd();
        return;
    }
    scanTask_.emplace(ScanJob{generation, std::move(started->handle)});
    // Each event the scan's threads put in the stream brings a queued call that takes, on this
    // thread, whatever the stream then holds. The scan's threads are joined before this object
    // goes (see the destructor), so none can call the wake later.
    events_.emplace(ScanEvents{generation, std::move(started->events)});
    events_->stream->setWake([this, generation] {
        QMetaObject::invokeMethod(
            this, [this, generation] { drainEvents(generation); }, Qt::QueuedConnection);
    });
}

void EditDetectorViewModel::drainEvents(std::uint64_t generation)
{
    // Calls for events of a scan that has since been cancelled, replaced or has finished are
    // dropped: after a successful scan has set progress 1, a late progress event must not move
    // it back.
    if (generation != generation_ || !events_ || events_->generation != generation) {
        return;
    }
    while (const std::optional<core::ProgressEvent> event = events_->stream->tryNext()) {
        if (event->kind() == core::ProgressEvent::Kind::progress) {
            setProgress(event->fraction());
        } else {
            setIsKeyframesTrusted(event->scanMode() == core::ScanMode::trustedKeyframes);
        }
    }
    if (events_->stream->hasEnded()) {
        dropEvents();
        setIsKeyframesTrusted(false);
    }
}

void EditDetectorViewModel::dropEvents()
{
    if (events_) {
        events_->stream->setWake({});
        events_.reset();
    }
}

void EditDetectorViewModel::scanFinished(std::uint64_t generation)
{
    std::optional<ScanJob> job;
    if (scanTask_ && scanTask_->generation == generation) {
        job = std::move(scanTask_);
        scanTask_.reset();
    } else {
        const auto retired = std::find_if(
            retiredScans_.begin(), retiredScans_.end(), [generation](const ScanJob& j) {
                return j.generation == generation;
            });
        if (retired == retiredScans_.end()) {
            return;
        }
        job = std::move(*retired);
        retiredScans_.erase(retired);
    }
    // The result is ready (the completion comes after it); the worker has at most to return from
    // the completion call, so releasing the handle joins it at once.
    const core::Expected<std::vector<core::EditMarker>> outcome = job->handle.waitForResult();
    const core::ReadDamage damage = job->handle.damage();
    job.reset();

    if (generation == generation_) {
        if (outcome) {
            setMarkers(*outcome);
            setProgress(damage.isClean() ? 1.0 : readFraction(damage));
            if (!damage.isClean()) {
                setScanWarning(damageWarning(damage));
            }
        } else if (!scan::scan_error::isCancellation(outcome.error())) {
            setErrorMessage(outcome.error().description);
        }
        setIsProcessing(false);
        dropEvents();
        setIsKeyframesTrusted(false);
    }
    logScanEnd();
}

std::string EditDetectorViewModel::damageWarning(const core::ReadDamage& damage) const
{
    MarkerExport request{.markers = {},
                         .rate = nominalFPS_,
                         .dropFrame = dropFrameSources(),
                         .sessionStartDigits = sessionStartDigits_,
                         .videoStartDigits = videoStartDigits_,
                         .markerName = markerName_};
    core::Expected<MarkerPlan> plan = planMarkerExport(request);
    if (!plan) {
        // Timecodes being typed: count from the video's own start instead.
        request.sessionStartDigits = "00000000";
        request.videoStartDigits = "00000000";
        plan = planMarkerExport(request);
    }
    const std::optional<DamageSummary> summary =
        plan ? summarizeDamage(damage, *plan) : std::nullopt;
    std::string text = summary ? damageText(*summary) : "cuts may be missing";
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return "The scan could not read the whole video. " + text
           + ". The markers are those of what could be read.";
}

double EditDetectorViewModel::readFraction(const core::ReadDamage& damage)
{
    constexpr double kMostOfADamagedScan = 0.99;
    if (damage.coveredUntil && damage.declaredDuration) {
        const double declared = damage.declaredDuration->seconds();
        if (declared > 0.0) {
            return std::clamp(damage.coveredUntil->seconds() / declared, 0.0, kMostOfADamagedScan);
        }
    }
    return kMostOfADamagedScan;
}

void EditDetectorViewModel::logScanEnd() const
{
    log_.line(std::string("marker array is empty?: ") + (markers_.empty() ? "true" : "false"));
}

}  // namespace kestrin::app
