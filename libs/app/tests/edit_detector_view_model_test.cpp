// The view model with a real VideoScanService whose detection step the test drives command by
// command, timers whose clock the test steps, and synthetic files.

#include <kestrin/app/edit_detector_view_model.hpp>
#include <kestrin/media_testing/synthetic_asset.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <sstream>
#include <variant>

namespace kestrin::app {
namespace {

using namespace std::chrono_literals;
using core::EditMarker;
using media_testing::SyntheticTrack;

// Delivers what has been posted to the interface thread so far.
void turnEventLoop()
{
    QCoreApplication::sendPostedEvents();
}

// For what worker threads post: turns the event loop until `condition` holds.
bool waitUntil(const std::function<bool()>& condition)
{
    return QTest::qWaitFor(condition, 10000);
}

EditMarker markerAt(std::int64_t frame)
{
    return {frame, core::MediaTime::make(frame, 25), std::nullopt};
}

// Timers that fire only when the test steps the clock.
class ManualTimers final : public TimerSource
{
public:
    std::unique_ptr<OneShotTimer> makeTimer(std::function<void()> onTimeout) override
    {
        return std::make_unique<Timer>(*this, std::move(onTimeout));
    }

    // Moves the clock on by `step`, firing the timers that fall due on the way, in order.
    void advance(std::chrono::milliseconds step)
    {
        const std::chrono::milliseconds until = now_ + step;
        for (;;) {
            const auto due = std::min_element(timers_.begin(), timers_.end(), [](auto* a, auto* b) {
                return a->deadline.value_or(24h) < b->deadline.value_or(24h);
            });
            if (due == timers_.end() || (*due)->deadline.value_or(24h) > until) {
                break;
            }
            now_ = *(*due)->deadline;
            (*due)->deadline.reset();
            (*due)->onTimeout();
        }
        now_ = until;
    }

private:
    struct Timer final : OneShotTimer
    {
        Timer(ManualTimers& timers, std::function<void()> callback)
            : owner(timers)
            , onTimeout(std::move(callback))
        {
            owner.timers_.push_back(this);
        }
        ~Timer() override { std::erase(owner.timers_, this); }
        Timer(const Timer&) = delete;
        Timer& operator=(const Timer&) = delete;
        Timer(Timer&&) = delete;
        Timer& operator=(Timer&&) = delete;
        void start(std::chrono::milliseconds interval) override
        {
            deadline = owner.now_ + interval;
        }
        void stop() override { deadline.reset(); }

        ManualTimers& owner;
        std::function<void()> onTimeout;
        std::optional<std::chrono::milliseconds> deadline;
    };

    std::chrono::milliseconds now_{0};
    std::vector<Timer*> timers_;
};

// The detection step of every scan, told what to do next by the test: report a fraction, return
// markers or fail. A stop request ends it. The tests have one scan waiting at a time.
class ScanScript
{
public:
    using Command = std::variant<double, std::vector<EditMarker>, core::Error>;

    void push(Command command)
    {
        {
            const std::scoped_lock lock(mutex_);
            commands_.push_back(std::move(command));
        }
        changed_.notify_all();
    }
    // Blocks (without turning the event loop) until a scan has taken every command pushed.
    void waitUntilTaken()
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return commands_.empty(); });
    }
    void setTrusted(bool trusted)
    {
        const std::scoped_lock lock(mutex_);
        trusted_ = trusted;
    }
    int startedCount() const
    {
        const std::scoped_lock lock(mutex_);
        return started_;
    }

    scan::ScanSteps steps()
    {
        scan::ScanSteps steps;
        steps.decideMode =
            [this](const media::Asset&, const media::Track&, const core::Log&, const auto&) {
                const std::scoped_lock lock(mutex_);
                return core::Expected<core::ScanMode>(trusted_ ? core::ScanMode::trustedKeyframes
                                                               : core::ScanMode::noKeyframes);
            };
        const auto scripted = [this](const scan::DetectionContext& context,
                                     const std::vector<EditMarker>&) {
            return run(context.reportProgress, context.stopToken);
        };
        steps.detector = scan::Detector{.name = "scripted",
                                        .keyframeStages = {{scripted, 1.0}},
                                        .fullDecodeStages = {{scripted, 1.0}}};
        return steps;
    }

private:
    core::Expected<std::vector<EditMarker>> run(const scan::ProgressCallback& report,
                                                const std::stop_token& stopToken)
    {
        std::unique_lock lock(mutex_);
        ++started_;
        while (changed_.wait(lock, stopToken, [this] { return !commands_.empty(); })) {
            Command command = std::move(commands_.front());
            commands_.pop_front();
            changed_.notify_all();
            if (const auto* fraction = std::get_if<double>(&command)) {
                report(*fraction);
            } else if (auto* markers = std::get_if<std::vector<EditMarker>>(&command)) {
                return std::move(*markers);
            } else {
                return std::get<core::Error>(command);
            }
        }
        return scan::scan_error::cancelled();
    }

    mutable std::mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<Command> commands_;
    int started_ = 0;
    bool trusted_ = true;
};

std::shared_ptr<media_testing::SyntheticAssetOpener> syntheticFiles()
{
    const auto video = [](float rate) {
        SyntheticTrack track;
        track.nominalFrameRate = rate;
        return track;
    };
    const auto timecode = [](std::uint32_t flags) {
        SyntheticTrack track;
        track.mediaType = media::MediaType::timecode;
        track.formatDescriptions = std::vector<media::FormatDescription>{
            {media::MediaType::timecode, media::fourCC("tmcd"), flags}};
        return track;
    };
    auto opener = std::make_shared<media_testing::SyntheticAssetOpener>();
    for (auto& [path, tracks] : std::vector<std::pair<const char*, std::vector<SyntheticTrack>>>{
             {"/clips/pal.mov", {video(25.0F)}},
             {"/clips/ndf.mov", {video(29.97F), timecode(0)}},
             {"/clips/df.mov", {video(29.97F), timecode(media::kTimeCodeFlagDropFrame)}}}) {
        opener->add(path,
                    std::make_shared<media_testing::SyntheticAsset>(core::MediaTime::make(10, 1),
                                                                    std::move(tracks)));
    }
    return opener;
}

// Every value the scan's fields took, in order, as text.
class History
{
public:
    explicit History(const EditDetectorViewModel& model)
    {
        using VM = EditDetectorViewModel;
        record(model, &VM::isProcessingChanged, processing_);
        record(model, &VM::scanLEDisOnChanged, led_);
        record(model, &VM::progressChanged, progress_);
        record(model, &VM::isKeyframesTrustedChanged, trusted_);
        record(model, &VM::markersChanged, markers_);
    }

    std::string text() const
    {
        return "processing" + processing_.str() + " | led" + led_.str() + " | progress"
               + progress_.str() + " | trusted" + trusted_.str() + " | markers" + markers_.str();
    }

private:
    template <typename Signal>
    static void record(const EditDetectorViewModel& model, Signal signal, std::ostringstream& out)
    {
        QObject::connect(&model, signal, [&out](const auto& value) {
            if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::vector<EditMarker>>) {
                out << " [";
                for (const EditMarker& marker : value) {
                    out << ' ' << marker.frameIndex;
                }
                out << " ]";
            } else {
                out << ' ' << value;
            }
        });
    }

    std::ostringstream processing_, led_, progress_, trusted_, markers_;
};

class ViewModelTest : public testing::Test
{
protected:
    ViewModelTest() { resetModel(); }

    void resetModel(std::unique_ptr<midi::MIDIExportService> exporter = {})
    {
        model_.reset();
        log_.clear();
        model_ = std::make_unique<EditDetectorViewModel>(
            opener_,
            core::Log([this](std::string_view line) { log_.emplace_back(line); }),
            ViewModelServices{.scanService = std::make_shared<scan::VideoScanService>(
                                  opener_, core::Log::discard(), script_.steps()),
                              .midiService = std::move(exporter),
                              .timers = timers_});
        model_->setSelectedURL("/clips/pal.mov");
    }

    // Starts a scan and waits until its detection step runs.
    void startScan()
    {
        const int started = script_.startedCount();
        model_->startScan();
        ASSERT_TRUE(waitUntil([&] { return script_.startedCount() > started; }));
    }

    bool waitForProgress(double fraction)
    {
        return waitUntil([&] { return model_->progress() == fraction; });
    }

    // Waits until `count` scans have written their last line.
    bool waitForScanEnds(std::int64_t count)
    {
        return waitUntil([&] {
            return std::count_if(log_.begin(),
                                 log_.end(),
                                 [](const std::string& line) {
                                     return line.starts_with("marker array is empty?: ");
                                 })
                   == count;
        });
    }

    std::shared_ptr<media_testing::SyntheticAssetOpener> opener_ = syntheticFiles();
    std::shared_ptr<ManualTimers> timers_ = std::make_shared<ManualTimers>();
    ScanScript script_;
    std::vector<std::string> log_;  // written on this thread only
    std::unique_ptr<EditDetectorViewModel> model_;
};

using ViewModelScan = ViewModelTest;

TEST_F(ViewModelScan, OutcomesShowInTheFieldsAndTheLog)
{
    struct Row
    {
        const char* what;
        bool trusted;
        std::function<void(EditDetectorViewModel&, ScanScript&)> end;
        std::string history;
        std::optional<std::string> error;
        std::string lastLine;
    };
    const Row rows[] = {
        {"success in trusted-keyframe mode",
         true,
         [](auto&, ScanScript& script) {
             script.push(std::vector{markerAt(12), markerAt(30)});
         },
         "processing 1 0 | led 1 | progress 0.5 1 | trusted 1 0 | markers [ 12 30 ]",
         std::nullopt,
         "marker array is empty?: false"},
        {"failure: the LED stays lit",
         false,
         [](auto&, ScanScript& script) {
             script.push(core::Error{"Decode", -2, "broken"});
         },
         "processing 1 0 | led 1 | progress 0.5 | trusted | markers",
         "broken",
         "marker array is empty?: true"},
        {"cancel: all out, no message",
         true,
         [](EditDetectorViewModel& model, ScanScript&) { model.cancelScan(); },
         "processing 1 0 | led 1 0 | progress 0.5 0 | trusted 1 0 | markers",
         std::nullopt,
         "marker array is empty?: true"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        resetModel();
        script_.setTrusted(row.trusted);
        const History history(*model_);
        startScan();
        script_.push(0.5);
        ASSERT_TRUE(waitForProgress(0.5));
        row.end(*model_, script_);

        // The lamp goes out at the end of the event stream, which may come after the result.
        EXPECT_TRUE(waitUntil([&] { return history.text() == row.history; })) << history.text();
        EXPECT_TRUE(waitForScanEnds(1));
        EXPECT_EQ(log_.back(), row.lastLine);
        EXPECT_EQ(model_->errorMessage(), row.error);
    }
}

// What the panel enables comes from here: a scan needs a video, valid timecodes and no scan
// running; an export needs markers instead of the video; DF/NDF mean something at 29.97 and
// 59.94 only.
TEST_F(ViewModelScan, ScanExportAndDropFrameAreOfferedOnlyWhereTheyApply)
{
    EXPECT_TRUE(model_->canStartScan());
    EXPECT_FALSE(model_->canExport()) << "no markers yet";
    startScan();
    EXPECT_FALSE(model_->canStartScan()) << "a scan runs";
    script_.push(std::vector{markerAt(12)});
    ASSERT_TRUE(waitUntil([&] { return !model_->isProcessing(); }));
    EXPECT_TRUE(model_->canStartScan());
    EXPECT_TRUE(model_->canExport());

    model_->setSessionStartDigits("99");  // frame 99 does not exist
    timers_->advance(150ms);
    turnEventLoop();
    EXPECT_FALSE(model_->canStartScan()) << "an invalid Session Start";
    EXPECT_FALSE(model_->canExport()) << "an invalid Session Start";
    model_->setSessionStartDigits("0");
    model_->setSelectedURL(std::nullopt);
    timers_->advance(150ms);
    turnEventLoop();
    EXPECT_FALSE(model_->canStartScan()) << "no video";
    EXPECT_TRUE(model_->canExport()) << "the markers stay";

    for (const core::StandardFrameRate& row : core::kStandardFrameRates) {
        model_->setNominalFPS(row.rate);
        EXPECT_EQ(model_->isDropFrameApplicable(), row.label == "29.97" || row.label == "59.94")
            << row.label;
    }
}

TEST_F(ViewModelScan, RestartShowsOnlyTheNewScan)
{
    // What the first scan does just before the restart, the event loop not turning in between:
    // nothing (it is stopped), or finish (its result is then stale when it arrives).
    for (const bool firstFinishes : {false, true}) {
        SCOPED_TRACE(firstFinishes);
        resetModel();
        script_.setTrusted(true);
        const History history(*model_);
        startScan();
        script_.push(0.3);
        ASSERT_TRUE(waitForProgress(0.3));
        if (firstFinishes) {
            script_.push(std::vector{markerAt(99)});
            script_.waitUntilTaken();
        }
        script_.setTrusted(false);
        startScan();
        ASSERT_TRUE(waitForScanEnds(1));  // the first scan writes its log line and nothing else
        EXPECT_TRUE(model_->isProcessing());

        script_.push(0.6);
        ASSERT_TRUE(waitForProgress(0.6));
        script_.push(std::vector{markerAt(40)});
        EXPECT_TRUE(waitUntil([&] {
            return history.text()
                   == "processing 1 0 1 0 | led 1 0 1 | progress 0.3 0 0.6 1 | trusted 1 0 | "
                      "markers [ 40 ]";
        })) << history.text();
        EXPECT_TRUE(waitForScanEnds(2));
    }
}

TEST_F(ViewModelScan, BodyStaleBeforeItRunsLeavesTheNewerScanAlone)
{
    // Both bodies are queued before either runs, so the first finds itself superseded.
    model_->startScan();
    model_->startScan();
    turnEventLoop();
    EXPECT_EQ(log_.back(), "marker array is empty?: true");
    ASSERT_TRUE(waitUntil([&] { return script_.startedCount() == 1; }));

    // The running scan is the newer one: its events and its result arrive.
    script_.push(0.4);
    ASSERT_TRUE(waitForProgress(0.4));
    script_.push(std::vector{markerAt(7)});
    ASSERT_TRUE(waitForScanEnds(2));
    EXPECT_EQ(model_->markers(), std::vector{markerAt(7)});
    EXPECT_EQ(script_.startedCount(), 1);
}

TEST_F(ViewModelScan, StartWithoutAFileOnlySetsTheMessage)
{
    model_->setSelectedURL(std::nullopt);
    model_->startScan();
    turnEventLoop();
    EXPECT_EQ(model_->errorMessage(), "No video selected.");
    EXPECT_FALSE(model_->isProcessing() || model_->scanLEDisOn());
    EXPECT_EQ(script_.startedCount(), 0);
}

TEST_F(ViewModelScan, DestructionStopsTheScanAndTheLoader)
{
    startScan();
    script_.push(0.2);
    model_->loadVideoInfo("/clips/ndf.mov");
    model_->startScan();  // a second body, queued
    model_.reset();       // joins the scan and the loader
    turnEventLoop();      // what they posted went with the object
    EXPECT_EQ(script_.startedCount(), 1);
}

using ViewModelValidation = ViewModelTest;

TEST_F(ViewModelValidation, FreshModelLogsEachFlagAtConstructionAndAfterTheQuietPeriod)
{
    EXPECT_EQ(model_->nominalFPS(), core::kFps2997);
    EXPECT_TRUE(model_->isDropFrame());
    EXPECT_EQ(model_->sessionStartDigits(), "00000000");
    EXPECT_EQ(model_->videoStartDigits(), "01000000");
    EXPECT_TRUE(model_->isSessionTCValid() && model_->isVideoTCValid());
    const std::vector<std::string> once = {"🔵 isSessionTCValid changed → true",
                                           "🟢 isVideoTCValid changed → true"};
    EXPECT_EQ(log_, once);

    timers_->advance(149ms);
    turnEventLoop();
    EXPECT_EQ(log_, once);
    timers_->advance(1ms);
    EXPECT_EQ(log_, once) << "stored on the next turn of the loop";
    turnEventLoop();
    EXPECT_EQ(log_, (std::vector{once[0], once[1], once[0], once[1]}));
}

TEST_F(ViewModelValidation, TypingChangesTheFlagOnlyAfterAQuietPeriod)
{
    timers_->advance(150ms);
    turnEventLoop();
    log_.clear();

    model_->setSessionStartDigits("99");  // frame 99 does not exist
    timers_->advance(100ms);
    model_->setSessionStartDigits("999");
    timers_->advance(149ms);
    turnEventLoop();
    EXPECT_TRUE(model_->isSessionTCValid());
    timers_->advance(1ms);
    turnEventLoop();
    EXPECT_FALSE(model_->isSessionTCValid());
    EXPECT_EQ(log_, std::vector<std::string>{"🔵 isSessionTCValid changed → false"});

    // Changed and changed back within the quiet period: the same text settles, nothing is stored.
    model_->setSessionStartDigits("1");
    timers_->advance(50ms);
    model_->setSessionStartDigits("999");
    timers_->advance(500ms);
    turnEventLoop();
    EXPECT_EQ(log_.size(), 1U);
}

TEST_F(ViewModelValidation, RateAndDropFrameChangesRevalidateOnTheNextTurn)
{
    model_->setSessionStartDigits("00:01:00:00");  // a label that drop-frame skips
    timers_->advance(150ms);
    turnEventLoop();
    EXPECT_FALSE(model_->isSessionTCValid());

    const std::pair<std::function<void(EditDetectorViewModel&)>, bool> rows[] = {
        {[](auto& m) { m.setUserPrefersDropFrame(false); }, true},
        {[](auto& m) { m.setUserPrefersDropFrame(true); }, false},
        {[](auto& m) { m.setNominalFPS(core::kFps25); }, true},
        {[](auto& m) { m.setNominalFPS(core::kFps5994); }, false},
    };
    for (const auto& [change, isValid] : rows) {
        log_.clear();
        change(*model_);
        turnEventLoop();
        EXPECT_EQ(model_->isSessionTCValid(), isValid);
        EXPECT_EQ(log_.size(), 2U) << "both flags stored, changed or not";
    }
}

TEST_F(ViewModelTest, DropFrameFollowsTheUserThenTheFileThenTheRate)
{
    const auto load = [&](const char* path, const std::function<bool()>& loaded) {
        model_->loadVideoInfo(path);
        EXPECT_TRUE(waitUntil(loaded)) << path;
    };
    load("/clips/ndf.mov", [&] { return model_->detectedIsDropFrame() == false; });
    EXPECT_FALSE(model_->isDropFrame()) << "a non-drop timecode track, no choice made";
    model_->setUserPrefersDropFrame(true);
    EXPECT_TRUE(model_->isDropFrame());

    model_->setUserPrefersDropFrame(false);
    load("/clips/df.mov", [&] { return model_->detectedIsDropFrame() == true; });
    EXPECT_FALSE(model_->isDropFrame()) << "the choice outlives the file";

    model_->setUserPrefersDropFrame(true);
    load("/clips/pal.mov", [&] { return model_->nominalFPS() == core::kFps25; });
    EXPECT_EQ(model_->detectedIsDropFrame(), std::nullopt);
    EXPECT_FALSE(model_->isDropFrame()) << "no drop-frame at 25 whatever the choice";

    load("/clips/missing.mov", [&] { return model_->errorMessage().has_value(); });
    EXPECT_EQ(model_->nominalFPS(), core::kFps25);
    EXPECT_EQ(model_->detectedIsDropFrame(), std::nullopt);
}

// Keeps the arguments of the last export.
struct RecordingExporter final : midi::MIDIExportService
{
    core::Expected<std::vector<std::uint8_t>> exportMarkerFile(
        const std::vector<std::int64_t>& /*frameDeltas*/,
        midi::MIDIFrameRate /*rate*/,
        std::string_view /*markerName*/,
        std::optional<std::string_view> /*firstMarkerName*/,
        std::int64_t /*startOffsetFrames*/,
        std::int64_t /*firstGapFrames*/) override
    {
        *lastCall = "exportMarkerFile";
        return std::vector<std::uint8_t>{1};
    }

    core::Expected<std::vector<std::uint8_t>> exportNamedMarkerFile(
        const std::vector<std::int64_t>& frameDeltas,
        midi::MIDIFrameRate rate,
        std::int64_t startOffsetFrames,
        std::span<const std::string> markerNames) override
    {
        std::ostringstream text;
        text << "deltas";
        for (const std::int64_t delta : frameDeltas) {
            text << ' ' << delta;
        }
        text << " | code " << static_cast<int>(rate) << " | offset " << startOffsetFrames << " |";
        for (const std::string& name : markerNames) {
            text << " '" << name << "'";
        }
        *lastCall = text.str();
        return std::vector<std::uint8_t>{1};
    }

    std::shared_ptr<std::string> lastCall = std::make_shared<std::string>();
};

TEST_F(ViewModelTest, MakeMIDIDataHandsTheExporterDeltasOffsetAndRateCode)
{
    auto exporter = std::make_unique<RecordingExporter>();
    const std::shared_ptr<std::string> lastCall = exporter->lastCall;
    resetModel(std::move(exporter));
    EXPECT_EQ(model_->makeMIDIData().error(), exportError(ExportError::noMarkers));
    startScan();
    script_.push(std::vector{markerAt(0), markerAt(12), markerAt(12), markerAt(30)});
    ASSERT_TRUE(waitUntil([&] { return !model_->isProcessing(); }));

    struct Row
    {
        core::FrameRate fps;
        std::optional<bool> userPrefersDropFrame;
        const char* sessionStart;
        const char* videoStart;
        int rateCode;
        int offset;
        const char* deltas;
    };
    // The markers lie at 0.48 s and 1.2 s, so at other rates on other frames.
    const Row rows[] = {
        {core::kFps25, {}, "01000000", "01000000", 11, 0, "12 18"},
        {core::kFps25, {}, "01000000", "01000100", 11, 25, "12 18"},
        {core::kFps2997, {}, "0", "00010002", 9, 1800, "14 22"},
        {core::kFps5994, false, "0", "100", 3, 60, "29 43"},
    };
    for (const Row& row : rows) {
        model_->setNominalFPS(row.fps);
        model_->setUserPrefersDropFrame(row.userPrefersDropFrame);
        model_->setSessionStartDigits(row.sessionStart);
        model_->setVideoStartDigits(row.videoStart);
        EXPECT_TRUE(model_->makeMIDIData().hasValue());
        EXPECT_EQ(*lastCall,
                  "deltas " + std::string(row.deltas) + " | code " + std::to_string(row.rateCode)
                      + " | offset " + std::to_string(row.offset)
                      + " | 'VIDEO START' 'Cut 1' 'Cut 2'");
    }
    // The user's choice of names, blank ones included.
    QSignalSpy nameChanges(model_.get(), &EditDetectorViewModel::markerNameChanged);
    model_->setMarkerName("{tc}");
    model_->setMarkerName("{tc}");
    EXPECT_EQ(nameChanges.count(), 1);
    EXPECT_TRUE(model_->makeMIDIData().hasValue());
    EXPECT_TRUE(lastCall->ends_with("'VIDEO START' '00:00:01:29' '00:00:02:12'")) << *lastCall;
    model_->setMarkerName(" ");
    EXPECT_TRUE(model_->makeMIDIData().hasValue());
    EXPECT_TRUE(lastCall->ends_with("'VIDEO START' ' ' ' '")) << *lastCall;

    model_->setSessionStartDigits("01000100");
    model_->setVideoStartDigits("01000000");
    EXPECT_EQ(model_->makeMIDIData().error().description, "Video Start is before Session Start.");
    model_->setSessionStartDigits("99999999");
    EXPECT_EQ(model_->makeMIDIData().error().description,
              "Invalid timecode. Please check Session Start and Video Start.");
    // Choosing another file keeps the markers until the next scan starts.
    model_->setSelectedURL("/clips/df.mov");
    EXPECT_EQ(model_->markers().size(), 4U);
}

}  // namespace
}  // namespace kestrin::app
