#include <kestrin/app/marker_plan.hpp>
#include <kestrin/timecode/timecode.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace kestrin::app {
namespace {

// `text` with every tab and line break made a space, so it stays one field of one line.
std::string oneField(std::string_view text)
{
    std::string field(text);
    std::replace_if(
        field.begin(),
        field.end(),
        [](char c) { return c == '\t' || c == '\n' || c == '\r'; },
        ' ');
    return field;
}

std::string fixedSixDecimals(double value)
{
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.6f", value);
    return text.data();
}

}  // namespace

std::string sessionTimecodeAt(const MarkerPlan& plan, const core::MediaTime& time)
{
    return sessionTimecodeOf(plan, {.frameIndex = 0, .time = time, .confidence = {}});
}

std::string sessionTimecodeOf(const MarkerPlan& plan, const core::EditMarker& marker)
{
    const std::int64_t frame =
        plan.sessionStartFrame + plan.videoStartFrame + timecodeFrameOf(marker, plan.frameRate);
    return timecode::timecodeTextForFrame(frame,
                                          plan.frameRate.timecodeBase(),
                                          plan.isDropFrame ? timecode::FrameCounting::DropFrame
                                                           : timecode::FrameCounting::NonDrop)
        .value_or("");
}

std::optional<DamageSummary> summarizeDamage(const core::ReadDamage& damage, const MarkerPlan& plan)
{
    if (damage.isClean()) {
        return std::nullopt;
    }
    DamageSummary summary;
    summary.damagedFrames = damage.damagedFrames;
    summary.readFrom = sessionTimecodeAt(plan, core::MediaTime::zero());
    if (damage.declaredDuration) {
        summary.declaredUntil = sessionTimecodeAt(plan, *damage.declaredDuration);
        summary.declaredSeconds = damage.declaredDuration->seconds();
    }
    const std::optional<core::MediaTime> until =
        damage.coveredUntil ? damage.coveredUntil : damage.declaredDuration;
    if (until) {
        summary.readUntil = sessionTimecodeAt(plan, *until);
        summary.readSeconds = until->seconds();
    }
    summary.isCutShort = damage.coveredUntil.has_value();
    return summary;
}

std::string damageText(const DamageSummary& summary)
{
    std::string text;
    if (summary.isCutShort) {
        text = "only " + summary.readFrom + "-" + summary.readUntil;
        if (summary.declaredUntil) {
            text += " of " + summary.readFrom + "-" + *summary.declaredUntil;
        }
        text += " could be read";
    }
    if (summary.damagedFrames > 0) {
        text += (text.empty() ? "" : ", ") + std::to_string(summary.damagedFrames)
                + (summary.damagedFrames == 1 ? " damaged frame" : " damaged frames");
    }
    return text + "; cuts may be missing";
}

core::Expected<MarkerPlan> planMarkerExport(const MarkerExport& request)
{
    const core::FrameRate rate = request.rate;
    const int base = rate.timecodeBase();
    const bool isDropFrame = effectiveDropFrame(rate, request.dropFrame);
    const auto counting =
        isDropFrame ? timecode::FrameCounting::DropFrame : timecode::FrameCounting::NonDrop;
    const auto session = timecode::timecodeFrameCount(request.sessionStartDigits, base, counting);
    const auto video = timecode::timecodeFrameCount(request.videoStartDigits, base, counting);
    if (!session || !video) {
        return exportError(ExportError::invalidTimecode);
    }
    // Placing such a video at the session's start instead would put every marker early by the
    // difference, without a word.
    if (*video < *session) {
        return exportError(ExportError::videoStartBeforeSessionStart);
    }
    const auto textOf = [&](std::int64_t frame) {
        return timecode::timecodeTextForFrame(frame, base, counting).value_or("");
    };

    MarkerPlan plan;
    plan.rate = midi::frameRateCode(rate, isDropFrame);
    plan.frameRate = rate;
    plan.isDropFrame = isDropFrame;
    plan.sessionStartFrame = *session;
    plan.sessionStart = textOf(*session);
    plan.videoStart = textOf(*video);
    plan.videoStartFrame = *video - *session;

    std::vector<std::pair<std::int64_t, double>> frames;
    frames.reserve(request.markers.size());
    for (const core::EditMarker& marker : request.markers) {
        frames.emplace_back(timecodeFrameOf(marker, rate), marker.time.seconds());
    }
    std::sort(frames.begin(), frames.end());
    std::int64_t previous = 0;
    for (const auto& [frame, seconds] : frames) {
        if (frame <= previous) {  // frame 0 is the video's start; a repeat adds nothing
            continue;
        }
        std::string timecode = textOf(*session + plan.videoStartFrame + frame);
        std::string name = markerText(
            request.markerName, static_cast<std::int64_t>(plan.cuts.size()) + 1, timecode);
        plan.cuts.push_back({frame, seconds, std::move(timecode), std::move(name)});
        previous = frame;
    }
    return plan;
}

std::string cutListText(const MarkerPlan& plan, std::string_view videoName)
{
    const core::FrameRate fps = plan.frameRate;
    std::string text(kCutListSignature);
    text += "\n# video\t" + oneField(videoName);
    text +=
        "\n# frame rate\t" + std::to_string(fps.numerator) + "/" + std::to_string(fps.denominator);
    text += std::string("\n# drop-frame\t") + (plan.isDropFrame ? "yes" : "no");
    text += "\n# session start\t" + plan.sessionStart;
    text += "\n# video start\t" + plan.videoStart;
    text += "\n# video start frame\t" + std::to_string(plan.videoStartFrame);
    text += "\nframe\tseconds\ttimecode\tname\n";
    for (const PlannedCut& cut : plan.cuts) {
        text += std::to_string(cut.frame) + "\t" + fixedSixDecimals(cut.seconds) + "\t"
                + cut.timecode + "\t" + oneField(cut.name) + "\n";
    }
    return text;
}

}  // namespace kestrin::app
