#pragma once

#include <kestrin/app/export_rules.hpp>
#include <kestrin/app/marker_plan.hpp>
#include <kestrin/app/timecode_validation.hpp>
#include <kestrin/app/timer_source.hpp>
#include <kestrin/app/video_info.hpp>
#include <kestrin/core/edit_marker.hpp>
#include <kestrin/core/error.hpp>
#include <kestrin/core/log.hpp>
#include <kestrin/core/progress_event.hpp>
#include <kestrin/core/read_damage.hpp>
#include <kestrin/media/asset.hpp>
#include <kestrin/midi/midi_export_service.hpp>
#include <kestrin/scan/scan_event_stream.hpp>
#include <kestrin/scan/video_scan_service.hpp>

#include <QObject>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kestrin::app {

/// What the view model works with besides the media opener; each one left empty is made by the
/// view model: a VideoScanService over the opener and the log, a StandardMIDIExportService
/// (19200 ticks per quarter note, 1000000 µs per quarter note), QTimer-based timers.
struct ViewModelServices
{
    std::shared_ptr<const scan::VideoScanService> scanService;
    std::unique_ptr<midi::MIDIExportService> midiService;
    std::shared_ptr<TimerSource> timers;
};

/// The application's state and the work it runs: the chosen video and its rate, the two
/// timecodes and their validity, the scan with its progress and lamps, the markers and their
/// export. The panel reads the properties, sets the ones it owns and calls the operations.
///
/// Threads: an object of the interface thread, which must run a Qt event loop. Every property is
/// read and written there, and every operation is called there. The work that leaves it (a scan,
/// the reading of its events, loadVideoInfo) runs on threads the view model owns and comes back
/// by queued calls with the view model as context; no call on the interface thread waits for a
/// worker except on destruction. Change signals are emitted on the interface thread, when the
/// value changed, with the new value; the two validity flags announce every store, changed or
/// not (the timecode fields take the stored verdict back from their own each time).
///
/// Scans: every cancelScan() (and so every startScan()) increments a generation counter; a scan's
/// result and events are applied only while the generation it was started with is current, so
/// a stale scan changes nothing but writes its log line.
///
/// Log lines (to the Log given at construction): "🔵 isSessionTCValid changed → true|false" and
/// "🟢 isVideoTCValid changed → true|false" on every store of a validity flag, changed or not;
/// "marker array is empty?: true|false" whenever a scan ends (stale ones included).
///
/// Destruction stops every scan and every loadVideoInfo, and waits for their threads to end
/// (within one decoded frame for a scan); nothing they post reaches the destroyed object.
class EditDetectorViewModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(std::optional<std::filesystem::path> selectedURL READ selectedURL WRITE
                   setSelectedURL NOTIFY selectedURLChanged)
    Q_PROPERTY(kestrin::core::FrameRate nominalFPS READ nominalFPS WRITE setNominalFPS NOTIFY
                   nominalFPSChanged)
    Q_PROPERTY(std::optional<bool> detectedIsDropFrame READ detectedIsDropFrame NOTIFY
                   detectedIsDropFrameChanged)
    Q_PROPERTY(std::optional<bool> userPrefersDropFrame READ userPrefersDropFrame WRITE
                   setUserPrefersDropFrame NOTIFY userPrefersDropFrameChanged)
    Q_PROPERTY(std::vector<kestrin::core::EditMarker> markers READ markers NOTIFY markersChanged)
    Q_PROPERTY(bool isProcessing READ isProcessing NOTIFY isProcessingChanged)
    Q_PROPERTY(bool scanLEDisOn READ scanLEDisOn NOTIFY scanLEDisOnChanged)
    Q_PROPERTY(double progress READ progress NOTIFY progressChanged)
    Q_PROPERTY(bool isKeyframesTrusted READ isKeyframesTrusted NOTIFY isKeyframesTrustedChanged)
    Q_PROPERTY(std::optional<std::string> errorMessage READ errorMessage WRITE setErrorMessage
                   NOTIFY errorMessageChanged)
    Q_PROPERTY(std::optional<std::string> scanWarning READ scanWarning WRITE setScanWarning NOTIFY
                   scanWarningChanged)
    Q_PROPERTY(std::string sessionStartDigits READ sessionStartDigits WRITE setSessionStartDigits
                   NOTIFY sessionStartDigitsChanged)
    Q_PROPERTY(std::string videoStartDigits READ videoStartDigits WRITE setVideoStartDigits NOTIFY
                   videoStartDigitsChanged)
    Q_PROPERTY(bool isSessionTCValid READ isSessionTCValid NOTIFY isSessionTCValidChanged)
    Q_PROPERTY(bool isVideoTCValid READ isVideoTCValid NOTIFY isVideoTCValidChanged)
    Q_PROPERTY(std::string markerName READ markerName WRITE setMarkerName NOTIFY markerNameChanged)

public:
    /// Quiet period after the last change of a timecode's text before its validity is recomputed.
    static constexpr std::chrono::milliseconds kDebounceInterval{150};

    /// Builds the two validation pipelines and then computes both validity flags at once (as
    /// revalidateTimecodes()). `opener` (not null) opens files for loadVideoInfo and, when no scan
    /// service is given, for the scans; that default service also writes to `log` from its worker
    /// threads, so the sink must then be thread-safe (the standard-error sink is).
    EditDetectorViewModel(std::shared_ptr<const media::AssetOpener> opener,
                          core::Log log,
                          ViewModelServices services = {},
                          QObject* parent = nullptr);
    /// Stops and joins all work (see the class comment).
    ~EditDetectorViewModel() override;
    EditDetectorViewModel(const EditDetectorViewModel&) = delete;
    EditDetectorViewModel& operator=(const EditDetectorViewModel&) = delete;
    EditDetectorViewModel(EditDetectorViewModel&&) = delete;
    EditDetectorViewModel& operator=(EditDetectorViewModel&&) = delete;

    // Properties. Strings are UTF-8.

    /// The video chosen by the user; absent at first. Setting it does not load anything: the
    /// panel calls loadVideoInfo() for a new file.
    [[nodiscard]] const std::optional<std::filesystem::path>& selectedURL() const;
    void setSelectedURL(const std::optional<std::filesystem::path>& url);
    /// The rate in force, 29.97 at first; set by a file (its rate snapped to a standard one) or by
    /// the panel's rate buttons.
    [[nodiscard]] core::FrameRate nominalFPS() const;
    void setNominalFPS(core::FrameRate rate);
    /// The drop-frame flag read from the file; absent when unknown or not applicable.
    [[nodiscard]] std::optional<bool> detectedIsDropFrame() const;
    /// The user's DF/NDF choice; absent until made. Outlives a change of file or rate.
    [[nodiscard]] std::optional<bool> userPrefersDropFrame() const;
    void setUserPrefersDropFrame(std::optional<bool> preferred);
    /// The edits of the last completed scan, ordered by frame index; cleared when a scan starts.
    [[nodiscard]] const std::vector<core::EditMarker>& markers() const;
    /// A scan is running.
    [[nodiscard]] bool isProcessing() const;
    /// The scan LED: lit by startScan(), put out only by the next cancelScan().
    [[nodiscard]] bool scanLEDisOn() const;
    /// Fraction of the running scan done, 0 to 1; 1 after a successful scan that read the whole
    /// video. A scan with damage ends below 1, so that the bar does not claim a complete scan:
    /// at the share of the declared duration read where the data ended early, else at 0.99.
    [[nodiscard]] double progress() const;
    /// The keyframe-trust lamp: lit while a scan in trusted-keyframe mode runs.
    [[nodiscard]] bool isKeyframesTrusted() const;
    /// The text of the error alert; present means the alert is up. The panel clears it.
    [[nodiscard]] const std::optional<std::string>& errorMessage() const;
    void setErrorMessage(const std::optional<std::string>& message);
    /// The text of the alert after a scan that succeeded without reading the whole video (damaged
    /// frames, data that ends early): what was read, as timecodes of the session, and what the
    /// markers are. Present means the alert is up; the panel clears it. Cleared by startScan().
    [[nodiscard]] const std::optional<std::string>& scanWarning() const;
    void setScanWarning(const std::optional<std::string>& text);
    /// Session Start as typed, "00000000" at first; characters that are not numbers are ignored
    /// wherever it is read.
    [[nodiscard]] const std::string& sessionStartDigits() const;
    void setSessionStartDigits(const std::string& digits);
    /// Video Start as typed, "01000000" at first.
    [[nodiscard]] const std::string& videoStartDigits() const;
    void setVideoStartDigits(const std::string& digits);
    /// Whether Session Start is a timecode at the rate in force. Follows a change of the text
    /// kDebounceInterval after the typing stops, and a change of the rate or of either drop-frame
    /// source on the next turn of the event loop.
    [[nodiscard]] bool isSessionTCValid() const;
    /// As isSessionTCValid(), for Video Start.
    [[nodiscard]] bool isVideoTCValid() const;
    /// The pattern of the cut markers' texts in an export (see markerText: "{n}" is the cut's
    /// number, "{tc}" its timecode), kDefaultMarkerName at first. Not kept between runs.
    [[nodiscard]] const std::string& markerName() const;
    void setMarkerName(const std::string& pattern);

    // Operations.

    /// Reads the rate and the drop-frame flag of the file at `path` on a thread of its own and,
    /// on a later turn of the event loop, sets nominalFPS (when the file states a usable rate)
    /// and detectedIsDropFrame; when the file cannot be read, sets errorMessage to the media
    /// layer's text and detectedIsDropFrame absent. Runs started earlier are not cancelled: the
    /// results are applied in the order they arrive.
    void loadVideoInfo(const std::filesystem::path& path);

    /// Scans selectedURL: without one, sets errorMessage to "No video selected." and does nothing
    /// else. Otherwise cancels the running scan, clears progress, markers, errorMessage and
    /// scanWarning, lights isProcessing and scanLEDisOn, and starts the scan on a later turn of
    /// the event loop. The scan's events move progress and isKeyframesTrusted; its end sets
    /// markers and progress 1 (success; with damage also scanWarning, and progress below 1),
    /// errorMessage (failure) or nothing (cancellation), and puts out isProcessing.
    void startScan();

    /// Makes the running scan stale and asks it to stop (without waiting for it); puts out
    /// isProcessing, scanLEDisOn and isKeyframesTrusted and sets progress 0. Leaves markers and
    /// errorMessage as they are.
    void cancelScan();

    /// The bytes of a Standard MIDI File with a "VIDEO START" marker at the offset of Video Start
    /// from Session Start and a marker per edit named by markerName (see app::makeMIDIData).
    /// Fails with
    /// exportError(ExportError::noMarkers) without markers,
    /// exportError(ExportError::invalidTimecode) when either timecode has no frame count at the
    /// rate in force,
    /// exportError(ExportError::videoStartBeforeSessionStart) when Video Start comes before
    /// Session Start, or the exporter's error.
    [[nodiscard]] core::Expected<std::vector<std::uint8_t>> makeMIDIData();

    /// Whether a scan can start now: a video is chosen, both timecodes are valid and no scan
    /// runs. Follows selectedURL, the validity flags and isProcessing.
    [[nodiscard]] bool canStartScan() const;
    /// Whether the markers can be exported now: there are markers, both timecodes are valid and
    /// no scan runs. Follows markers, the validity flags and isProcessing.
    [[nodiscard]] bool canExport() const;
    /// Whether the user's drop-frame choice means anything at the rate in force: at 29.97 and
    /// 59.94 only. Follows nominalFPS.
    [[nodiscard]] bool isDropFrameApplicable() const;
    /// effectiveDropFrame(nominalFPS()).
    [[nodiscard]] bool isDropFrame() const;
    /// Whether drop-frame counting applies at `rate`: only at 29.97 and 59.94, where the user's
    /// choice decides, else the file's flag, else true.
    [[nodiscard]] bool effectiveDropFrame(core::FrameRate rate) const;

    /// Sets both validity flags now from the current values (logging each).
    void revalidateTimecodes();

signals:
    void selectedURLChanged(const std::optional<std::filesystem::path>& url);
    void nominalFPSChanged(kestrin::core::FrameRate rate);
    void detectedIsDropFrameChanged(std::optional<bool> detected);
    void userPrefersDropFrameChanged(std::optional<bool> preferred);
    void markersChanged(const std::vector<kestrin::core::EditMarker>& markers);
    void isProcessingChanged(bool isProcessing);
    void scanLEDisOnChanged(bool isOn);
    void progressChanged(double progress);
    void isKeyframesTrustedChanged(bool isTrusted);
    void errorMessageChanged(const std::optional<std::string>& message);
    void scanWarningChanged(const std::optional<std::string>& text);
    void sessionStartDigitsChanged(const std::string& digits);
    void videoStartDigitsChanged(const std::string& digits);
    void isSessionTCValidChanged(bool isValid);
    void isVideoTCValidChanged(bool isValid);
    void markerNameChanged(const std::string& pattern);

private:
    // A scan's handle with the generation it was started with.
    struct ScanJob
    {
        std::uint64_t generation = 0;
        scan::ScanHandle handle;
    };
    // The current scan's events with the generation it was started with.
    struct ScanEvents
    {
        std::uint64_t generation = 0;
        std::shared_ptr<scan::ScanEventStream> stream;
    };

    // Stores `value` in `field` and announces it by the signal `changed`; false, announcing
    // nothing, when `field` already holds it.
    template <typename T, typename Signal>
    bool store(T& field, T value, Signal changed);

    [[nodiscard]] DropFrameSources dropFrameSources() const;
    void runScanBody(std::uint64_t generation, const std::filesystem::path& path);
    void drainEvents(std::uint64_t generation);
    void dropEvents();
    void scanFinished(std::uint64_t generation);
    void logScanEnd() const;
    // The scanWarning text for `damage`, with the timecodes of the fields (of the video's own
    // start while they are not valid).
    [[nodiscard]] std::string damageWarning(const core::ReadDamage& damage) const;
    // Where the bar stops after a scan with damage (see progress()).
    [[nodiscard]] static double readFraction(const core::ReadDamage& damage);
    void videoInfoLoaded(std::uint64_t loaderId, const core::Expected<VideoInfo>& info);

    void setDetectedIsDropFrame(std::optional<bool> detected);
    void setMarkers(std::vector<core::EditMarker> markers);
    void setIsProcessing(bool isProcessing);
    void setScanLEDisOn(bool isOn);
    void setProgress(double progress);
    void setIsKeyframesTrusted(bool isTrusted);
    void storeSessionTCValid(bool isValid);
    void storeVideoTCValid(bool isValid);

    // Immutable after construction.
    std::shared_ptr<const media::AssetOpener> opener_;
    core::Log log_;
    std::shared_ptr<const scan::VideoScanService> scanService_;
    std::unique_ptr<midi::MIDIExportService> midiService_;
    std::shared_ptr<TimerSource> timers_;

    // Everything below: interface thread only.
    std::optional<std::filesystem::path> selectedURL_;
    core::FrameRate nominalFPS_ = core::kFps2997;
    std::optional<bool> detectedIsDropFrame_;
    std::optional<bool> userPrefersDropFrame_;
    std::vector<core::EditMarker> markers_;
    bool isProcessing_ = false;
    bool scanLEDisOn_ = false;
    double progress_ = 0.0;
    bool isKeyframesTrusted_ = false;
    std::optional<std::string> errorMessage_;
    std::optional<std::string> scanWarning_;
    std::string sessionStartDigits_ = "00000000";
    std::string videoStartDigits_ = "01000000";
    std::string markerName_ = std::string(kDefaultMarkerName);
    bool isSessionTCValid_ = false;
    bool isVideoTCValid_ = false;

    // Identifies the current scan; wraps around.
    std::uint64_t generation_ = 0;
    // The current scan and its events, absent when none runs (the events also once they have
    // ended).
    std::optional<ScanJob> scanTask_;
    std::optional<ScanEvents> events_;
    // Stopped scans, each joined when it reports its end (or on destruction).
    std::vector<ScanJob> retiredScans_;
    // loadVideoInfo threads by id; each removed (joined) when its result arrives.
    std::map<std::uint64_t, std::jthread> videoInfoLoaders_;
    std::uint64_t nextLoaderId_ = 0;

    // Declared after timers_ so that they go first.
    std::optional<TimecodeValidation> sessionValidation_;
    std::optional<TimecodeValidation> videoValidation_;
};

}  // namespace kestrin::app
