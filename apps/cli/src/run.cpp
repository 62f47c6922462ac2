#include "run.hpp"

#include <kestrin/app/export_rules.hpp>
#include <kestrin/app/video_info.hpp>
#include <kestrin/midi/marker_ticks.hpp>
#include <kestrin/midi/midi_file_writer.hpp>
#include <kestrin/midi/standard_midi_export_service.hpp>
#include <kestrin/midi/temporary_file.hpp>
#include <kestrin/scan/scan_error.hpp>
#include <kestrin/timecode/timecode.hpp>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

namespace kestrin::cli {

namespace {

using Bytes = std::vector<std::uint8_t>;

// The marker file with a text of its own per cut (the pattern holds {n} or {tc}).
core::Expected<Bytes> numberedMarkerFile(const app::MarkerExport& request,
                                         const std::vector<std::string>& cutTexts)
{
    const auto offset = app::videoStartOffsetFrames(request.nominalFPS,
                                                    request.dropFrame,
                                                    request.sessionStartDigits,
                                                    request.videoStartDigits);
    if (!offset) {
        return app::exportError(app::ExportError::invalidTimecode);
    }
    const std::vector<std::int64_t> deltas = app::frameDeltas(request.markers, request.nominalFPS);
    const std::vector<std::int64_t> frames =
        midi::markerFrameList(deltas, std::max<std::int64_t>(*offset, 0), 0);
    std::vector<std::string> names = {"VIDEO START"};
    names.insert(names.end(), cutTexts.begin(), cutTexts.end());
    return midi::assembleMarkerFile(
        midi::tickDeltasForFrames(frames,
                                  app::exportRateCode(request.nominalFPS, request.dropFrame)),
        names);
}

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

std::string markerText(std::string_view pattern, std::int64_t number, std::string_view timecode)
{
    std::string text;
    for (std::size_t i = 0; i < pattern.size();) {
        if (pattern.substr(i).starts_with("{n}")) {
            text += std::to_string(number);
            i += 3;
        } else if (pattern.substr(i).starts_with("{tc}")) {
            text += timecode;
            i += 4;
        } else {
            text += pattern[i++];
        }
    }
    return text;
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
    const core::Expected<app::VideoInfo> info = app::loadVideoInfo(*opener_, video);
    if (!info) {
        report.error = info.error();
        return report;
    }
    const float rate = options_.rate.value_or(info->nominalFPS.value_or(25.0F));
    const app::DropFrameSources dropSources{options_.dropFrame, info->detectedIsDropFrame};
    report.nominalFPS = rate;
    report.dropFrame = app::effectiveDropFrame(rate, dropSources);
    for (const auto& [name, digits] : {std::pair{"--session-start", options_.sessionStartDigits},
                                       std::pair{"--video-start", options_.videoStartDigits}}) {
        if (!isTimecodeAt(digits, rate, report.dropFrame)) {
            report.error = core::Error{"usage",
                                       2,
                                       std::string(name) + " is not a valid timecode at "
                                           + std::to_string(app::integerFrameRate(rate)) + " fps"
                                           + (report.dropFrame ? " drop-frame" : "")};
            return report;
        }
    }

    scan::Scan scan = service_.scanForEdits(video);
    interruption_.attach(scan.handle);
    // Polled rather than waited for in next(): a blocking wait was seen to miss the stream's
    // finish under the address sanitizer, leaving the tool hanging after a failed scan.
    for (bool ended = false; !ended;) {
        ended = scan.events->hasEnded();  // before draining, so no event is left behind
        while (const std::optional<core::ProgressEvent> event = scan.events->tryNext()) {
            if (event->kind() == core::ProgressEvent::Kind::mode) {
                report.mode = event->scanMode();
            } else if (progress) {
                progress(event->fraction());
            }
        }
        if (!ended) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    const core::Expected<std::vector<core::EditMarker>> markers = scan.handle.waitForResult();
    interruption_.detach();
    if (!markers) {
        report.error = markers.error();
        return report;
    }

    const int base = app::integerFrameRate(rate);
    const auto counting =
        report.dropFrame ? timecode::FrameCounting::DropFrame : timecode::FrameCounting::NonDrop;
    const std::int64_t start =
        timecode::timecodeFrameCount(options_.videoStartDigits, base, counting).value_or(0);
    std::vector<std::string> cutTexts;
    std::int64_t previous = 0;
    for (const core::EditMarker& marker : *markers) {
        const std::int64_t frame = app::timecodeFrameOf(marker, rate);
        const std::string tc =
            timecode::timecodeTextForFrame(start + frame, base, counting).value_or("");
        report.cuts.push_back({marker.frameIndex, marker.time.seconds(), tc, marker.confidence});
        if (frame > previous) {  // the markers frameDeltas keeps
            cutTexts.push_back(markerText(
                options_.markerName, static_cast<std::int64_t>(cutTexts.size()) + 1, tc));
            previous = frame;
        }
    }
    if (!options_.writeMIDI || markers->empty()) {
        return report;
    }

    const app::MarkerExport request{.markers = *markers,
                                    .nominalFPS = rate,
                                    .dropFrame = dropSources,
                                    .sessionStartDigits = options_.sessionStartDigits,
                                    .videoStartDigits = options_.videoStartDigits,
                                    .markerName = options_.markerName};
    const bool perCut = options_.markerName.find("{n}") != std::string::npos
                        || options_.markerName.find("{tc}") != std::string::npos;
    midi::StandardMIDIExportService exporter;
    const core::Expected<Bytes> bytes =
        perCut ? numberedMarkerFile(request, cutTexts) : app::makeMIDIData(request, exporter);
    if (!bytes) {
        report.error = bytes.error();
        return report;
    }
    const std::filesystem::path target = options_.output.value_or(defaultMIDIPath(video));
    if (interruption_.interrupted()) {  // the scan ended before the stop request reached it
        report.error = scan::scan_error::cancelled();
        return report;
    }
    if (const core::Status written = midi::writeFileAtomically(target, *bytes); !written) {
        report.error = written.error();
        return report;
    }
    report.midi = target;
    return report;
}

}  // namespace kestrin::cli
