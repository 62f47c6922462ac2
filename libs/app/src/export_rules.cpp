#include <kestrin/app/export_rules.hpp>
#include <kestrin/app/marker_plan.hpp>
#include <kestrin/core/wide_math.hpp>
#include <kestrin/timecode/timecode.hpp>

#include <algorithm>
#include <cmath>

namespace kestrin::app {
namespace {

bool within(float rate, float named, float tolerance)
{
    return std::fabs(rate - named) < tolerance;
}

constexpr float kDropFrameTolerance = 0.002F;
constexpr float kRateTolerance = 0.01F;

}  // namespace

float snapFrameRate(float rate)
{
    if (std::isnan(rate)) {
        return kSupportedFrameRates[0];
    }
    float best = std::fabs(24.0F - rate) < std::fabs(23.976F - rate) ? 24.0F : 23.976F;
    for (std::size_t i = 2; i < kSupportedFrameRates.size(); ++i) {
        const float candidate = kSupportedFrameRates[i];
        if (std::fabs(candidate - rate) < std::fabs(best - rate)) {
            best = candidate;
        }
    }
    return best;
}

int integerFrameRate(float rate)
{
    if (within(rate, 23.976F, kRateTolerance)) {
        return 24;
    }
    if (within(rate, 29.97F, kRateTolerance)) {
        return 30;
    }
    if (within(rate, 59.94F, kRateTolerance)) {
        return 60;
    }
    // Snapped rates only reach here; the clamp keeps any other float from overflowing the cast.
    return static_cast<int>(std::round(std::clamp(rate, -1.0e6F, 1.0e6F)));
}

bool effectiveDropFrame(float rate, const DropFrameSources& sources)
{
    if (!within(rate, 29.97F, kDropFrameTolerance) && !within(rate, 59.94F, kDropFrameTolerance)) {
        return false;
    }
    return sources.userPrefersDropFrame.value_or(sources.detectedIsDropFrame.value_or(true));
}

std::int64_t timecodeFrameOf(const core::EditMarker& marker, float nominalFPS)
{
    if (!marker.time.isNumeric() || marker.time.timescale <= 0) {
        return marker.frameIndex;
    }
    const float rate = snapFrameRate(nominalFPS);
    const int base = integerFrameRate(rate);
    const bool isFractional = std::fabs(rate - static_cast<float>(base)) > kRateTolerance;
    // frames = value x base x 1000 / (timescale x 1001) for the fractional rates, else
    // value x base / timescale; rounded half away from zero, in 128 bits as times can be long.
    using core::Int128;
    const Int128 numerator =
        static_cast<Int128>(marker.time.value) * base * (isFractional ? 1000 : 1);
    const Int128 denominator =
        static_cast<Int128>(marker.time.timescale) * (isFractional ? 1001 : 1);
    return static_cast<std::int64_t>(core::divideRoundingToNearest(numerator, denominator));
}

std::optional<std::int64_t> videoStartOffsetFrames(float nominalFPS,
                                                   const DropFrameSources& sources,
                                                   std::string_view sessionStartDigits,
                                                   std::string_view videoStartDigits)
{
    const float rate = snapFrameRate(nominalFPS);
    const auto counting = effectiveDropFrame(rate, sources) ? timecode::FrameCounting::DropFrame
                                                            : timecode::FrameCounting::NonDrop;
    const int base = integerFrameRate(rate);
    const auto session = timecode::timecodeFrameCount(sessionStartDigits, base, counting);
    const auto video = timecode::timecodeFrameCount(videoStartDigits, base, counting);
    if (!session || !video) {
        return std::nullopt;
    }
    return *video - *session;
}

midi::MIDIFrameRate exportRateCode(float nominalFPS, const DropFrameSources& sources)
{
    using midi::MIDIFrameRate;
    const float rate = snapFrameRate(nominalFPS);
    const bool dropFrame = effectiveDropFrame(rate, sources);
    struct Row
    {
        float rate;
        float tolerance;
        MIDIFrameRate code;
        MIDIFrameRate dropFrameCode;
    };
    static constexpr Row kRows[] = {
        {23.976F, kRateTolerance, MIDIFrameRate::Fps23976, MIDIFrameRate::Fps23976},
        {24.0F, kRateTolerance, MIDIFrameRate::Fps24, MIDIFrameRate::Fps24},
        {25.0F, kRateTolerance, MIDIFrameRate::Fps25, MIDIFrameRate::Fps25},
        {29.97F, kRateTolerance, MIDIFrameRate::Fps2997NonDrop, MIDIFrameRate::Fps2997DropFrame},
        {30.0F, kRateTolerance, MIDIFrameRate::Fps30, MIDIFrameRate::Fps30},
        {50.0F, kRateTolerance, MIDIFrameRate::Fps50, MIDIFrameRate::Fps50},
        {59.94F, 0.05F, MIDIFrameRate::Fps5994NonDrop, MIDIFrameRate::Fps5994DropFrame},
        {60.0F, kRateTolerance, MIDIFrameRate::Fps60, MIDIFrameRate::Fps60},
    };
    for (const Row& row : kRows) {
        if (within(rate, row.rate, row.tolerance)) {
            return dropFrame ? row.dropFrameCode : row.code;
        }
    }
    return MIDIFrameRate::Fps24;
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
    std::vector<std::string> names = {"VIDEO START"};
    std::int64_t previous = 0;
    for (const PlannedCut& cut : plan->cuts) {
        deltas.push_back(cut.frame - previous);
        names.push_back(cut.name);
        previous = cut.frame;
    }
    return exporter.exportNamedMarkerFile(deltas, plan->rate, plan->videoStartFrame, names);
}

}  // namespace kestrin::app
