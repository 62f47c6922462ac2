#include <kestrin/app/export_rules.hpp>
#include <kestrin/app/marker_plan.hpp>
#include <kestrin/core/wide_math.hpp>
#include <kestrin/timecode/timecode.hpp>

namespace kestrin::app {

bool effectiveDropFrame(core::FrameRate rate, const DropFrameSources& sources)
{
    if (!rate.allowsDropFrame()) {
        return false;
    }
    return sources.userPrefersDropFrame.value_or(sources.detectedIsDropFrame.value_or(true));
}

std::int64_t timecodeFrameOf(const core::EditMarker& marker, core::FrameRate rate)
{
    if (!marker.time.isNumeric() || marker.time.timescale <= 0 || rate.numerator <= 0
        || rate.denominator <= 0) {
        return marker.frameIndex;
    }
    // value x numerator / (timescale x denominator), in 128 bits as times can be long.
    using core::Int128;
    return static_cast<std::int64_t>(core::divideRoundingToNearest(
        static_cast<Int128>(marker.time.value) * rate.numerator,
        static_cast<Int128>(marker.time.timescale) * rate.denominator));
}

std::optional<std::int64_t> videoStartOffsetFrames(core::FrameRate rate,
                                                   const DropFrameSources& sources,
                                                   std::string_view sessionStartDigits,
                                                   std::string_view videoStartDigits)
{
    const auto counting = effectiveDropFrame(rate, sources) ? timecode::FrameCounting::DropFrame
                                                            : timecode::FrameCounting::NonDrop;
    const int base = rate.timecodeBase();
    const auto session = timecode::timecodeFrameCount(sessionStartDigits, base, counting);
    const auto video = timecode::timecodeFrameCount(videoStartDigits, base, counting);
    if (!session || !video) {
        return std::nullopt;
    }
    return *video - *session;
}

core::Error exportError(ExportError error)
{
    switch (error) {
        case ExportError::noMarkers:
            return {"ExportError", 0, "There are no markers to export."};
        case ExportError::invalidTimecode:
            break;
        case ExportError::videoStartBeforeSessionStart:
            return {"ExportError", 2, "Video Start is before Session Start."};
    }
    return {"ExportError", 1, "Invalid timecode. Please check Session Start and Video Start."};
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

core::Expected<std::vector<std::uint8_t>> makeMIDIData(const MarkerExport& request,
                                                       midi::MIDIExportService& exporter)
{
    if (request.markers.empty()) {
        return exportError(ExportError::noMarkers);
    }
    const core::Expected<MarkerPlan> plan = planMarkerExport(request);
    if (!plan) {
        return plan.error();
    }
    std::vector<std::int64_t> deltas;
    std::vector<std::string> names = {std::string(kVideoStartMarkerName)};
    std::int64_t previous = 0;
    for (const PlannedCut& cut : plan->cuts) {
        deltas.push_back(cut.frame - previous);
        names.push_back(cut.name);
        previous = cut.frame;
    }
    return exporter.exportNamedMarkerFile(deltas, plan->rate, plan->videoStartFrame, names);
}

}  // namespace kestrin::app
