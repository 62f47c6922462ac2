#include "run.hpp"

#include <kestrin/app/export_rules.hpp>
#include <kestrin/app/marker_plan.hpp>
#include <kestrin/app/video_info.hpp>
#include <kestrin/core/safe_file.hpp>
#include <kestrin/midi/standard_midi_export_service.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <algorithm>
#include <utility>

namespace kestrin::cli {

namespace {

using Bytes = std::vector<std::uint8_t>;

// The scan's steps with the detector called `name` (checked by the option parser).
scan::ScanSteps stepsWith(std::string_view name)
{
    scan::ScanSteps steps;
    if (std::optional<scan::Detector> detector = scan::findDetector(name)) {
        steps.detector = std::move(*detector);
    }
    return steps;
}

}  // namespace

void Interruption::interrupt()
{
    const std::scoped_lock lock(mutex_);
    interrupted_ = true;
    stop_.request_stop();
    if (current_ != nullptr) {
        current_->requestStop();
    }
}

bool Interruption::interrupted() const
{
    const std::scoped_lock lock(mutex_);
    return interrupted_;
}

void Interruption::attach(scan::ScanHandle& handle)
{
    const std::scoped_lock lock(mutex_);
    current_ = &handle;
    if (interrupted_) {
        handle.requestStop();
    }
}

void Interruption::detach()
{
    const std::scoped_lock lock(mutex_);
    current_ = nullptr;
}

std::filesystem::path defaultMIDIPath(const std::filesystem::path& video)
{
    std::filesystem::path midi = video;
    midi.replace_filename(video.stem().string() + "_Markers.mid");
    return midi;
}

VideoRunner::VideoRunner(const Options& options,
                         std::shared_ptr<const media::AssetOpener> opener,
                         core::Log log,
                         Interruption& interruption)
    : options_(options)
    , opener_(opener)
    , service_(std::move(opener), std::move(log), stepsWith(options.detector))
    , interruption_(interruption)
{}

VideoReport VideoRunner::run(const std::filesystem::path& video, const Progress& progress) const
{
    VideoReport report;
    report.file = video;
    const core::Expected<app::VideoInfo> info =
        app::loadVideoInfo(*opener_, video, interruption_.stopToken());
    if (!info) {
        report.error = info.error();
        return report;
    }
    const core::FrameRate rate = options_.rate.value_or(info->frameRate.value_or(core::kFps25));
    const app::DropFrameSources dropSources{options_.dropFrame, info->detectedIsDropFrame};
    report.nominalFPS = core::standardFrameRateRow(rate)->nominal;
    report.dropFrame = app::effectiveDropFrame(rate, dropSources);
    // Checked here as well as for --rate: the file's rate is only known now.
    if (const core::Status counting = checkCountingAt(
            options_.dropFrame,
            rate,
            "this video's " + std::string(core::standardFrameRateRow(rate)->label) + " fps");
        !counting) {
        report.error = counting.error();
        return report;
    }
    for (const auto& [name, digits] : {std::pair{"--session-start", options_.sessionStartDigits},
                                       std::pair{"--video-start", options_.videoStartDigits}}) {
        if (!isTimecodeAt(digits, rate, report.dropFrame)) {
            report.error = core::Error{"usage",
                                       2,
                                       std::string(name) + " is not a valid timecode at "
                                           + std::to_string(rate.timecodeBase()) + " fps"
                                           + (report.dropFrame ? " drop-frame" : "")};
            return report;
        }
    }

    scan::Scan scan = service_.scanForEdits(video);
    interruption_.attach(scan.handle);
    while (const std::optional<core::ProgressEvent> event = scan.events->next()) {
        if (event->kind() == core::ProgressEvent::Kind::mode) {
            report.mode = event->scanMode();
        } else if (progress) {
            progress(event->fraction());
        }
    }
    const core::Expected<std::vector<core::EditMarker>> markers = scan.handle.waitForResult();
    const core::ReadDamage damage = scan.handle.damage();
    interruption_.detach();
    if (!markers) {
        report.error = markers.error();
        return report;
    }

    const app::MarkerExport request{.markers = *markers,
                                    .rate = rate,
                                    .dropFrame = dropSources,
                                    .sessionStartDigits = options_.sessionStartDigits,
                                    .videoStartDigits = options_.videoStartDigits,
                                    .markerName = options_.markerName};
    const core::Expected<app::MarkerPlan> plan = app::planMarkerExport(request);
    if (!plan) {
        report.error = plan.error();
        return report;
    }
    for (const core::EditMarker& marker : *markers) {
        report.cuts.push_back({marker.frameIndex,
                               marker.time.seconds(),
                               app::sessionTimecodeOf(*plan, marker),
                               marker.confidence});
    }
    report.damage = app::summarizeDamage(damage, *plan);
    if (interruption_.interrupted()) {  // the scan ended before the stop request reached it
        report.error = scan::scan_error::cancelled();
        return report;
    }

    if (options_.writeMIDI && !markers->empty()) {
        midi::StandardMIDIExportService exporter(options_.layout);
        const core::Expected<Bytes> bytes = app::makeMIDIData(request, exporter);
        if (!bytes) {
            report.error = bytes.error();
            return report;
        }
        const std::filesystem::path target = options_.output.value_or(defaultMIDIPath(video));
        if (target == kStandardOutput) {
            report.standardOutput = *bytes;
        } else if (const core::Status written = core::writeFileSafely(target, *bytes); !written) {
            report.error = written.error();
            return report;
        }
        report.midi = target;
    }
    if (options_.cutList) {
        const std::string text = app::cutListText(*plan, video.filename().string());
        if (*options_.cutList == kStandardOutput) {
            report.standardOutput.assign(text.begin(), text.end());
        } else if (const core::Status written = core::writeFileSafely(*options_.cutList, text);
                   !written) {
            report.error = written.error();
            return report;
        }
        report.cutList = options_.cutList;
    }
    return report;
}

core::Status checkOutputs(const Options& options)
{
    using std::filesystem::path;
    struct Output
    {
        std::string what;  // as the messages name it
        path file;
        bool isDefault = false;  // beside its video, not named by an option
        core::WriteTarget target = {};
    };
    const auto quoted = [](const path& file) {
        return "\"" + file.string() + "\"";
    };
    const auto usage = [](std::string message) {
        return core::Error{"usage", 2, std::move(message)};
    };

    std::vector<std::pair<path, core::FileIdentity>> inputs;
    std::vector<Output> wanted;
    for (const path& video : options.videos) {
        if (const std::optional<core::FileIdentity> identity = core::fileIdentity(video)) {
            inputs.emplace_back(video, *identity);
        }
        if (options.writeMIDI && !options.output) {
            wanted.push_back({"the MIDI file of " + quoted(video), defaultMIDIPath(video), true});
        }
    }
    if (options.writeMIDI && options.output) {
        wanted.push_back({"--output", *options.output});
    }
    if (options.cutList) {
        wanted.push_back({"--cut-list", *options.cutList});
    }

    std::vector<Output> outputs;
    for (Output& output : wanted) {
        if (output.file == kStandardOutput) {
            continue;
        }
        core::Expected<core::WriteTarget> target = core::resolveWriteTarget(output.file);
        if (!target) {
            if (target.error().domain == "File") {
                return usage(output.what + ": " + target.error().description);
            }
            continue;  // the write says why
        }
        output.target = std::move(*target);
        for (const auto& [video, identity] : inputs) {
            if (output.target.existing == identity) {
                return usage(output.what + " " + quoted(output.file) + " is the video "
                             + quoted(video) + ", which it would overwrite");
            }
        }
        for (const Output& earlier : outputs) {
            if (earlier.target.path == output.target.path
                || (output.target.existing && earlier.target.existing == output.target.existing)) {
                return usage(earlier.what + " and " + output.what + " would both be written to "
                             + quoted(output.file)
                             + (earlier.isDefault && output.isDefault
                                    ? "; scan such videos one at a time with --output"
                                    : ""));
            }
        }
        outputs.push_back(std::move(output));
    }
    return {};
}

}  // namespace kestrin::cli
