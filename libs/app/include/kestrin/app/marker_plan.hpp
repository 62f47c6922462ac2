#pragma once

#include <kestrin/app/export_rules.hpp>
#include <kestrin/core/error.hpp>
#include <kestrin/core/media_time.hpp>
#include <kestrin/core/read_damage.hpp>
#include <kestrin/midi/midi_frame_rate.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::app {

/// One cut as an export writes it.
struct PlannedCut
{
    /// The cut's frame counted from the video's first frame at the export's rate
    /// (timecodeFrameOf): always 1 or more, and rising from cut to cut.
    std::int64_t frame = 0;
    /// The cut's time in the video, in seconds.
    double seconds = 0;
    /// Where the cut lies on the session timeline, as a timecode text.
    std::string timecode;
    /// The marker's text.
    std::string name;

    friend bool operator==(const PlannedCut&, const PlannedCut&) = default;
};

/// Everything an export writes, worked out once for the marker file and the cut list.
struct MarkerPlan
{
    midi::MIDIFrameRate rate = midi::MIDIFrameRate::Fps24;
    /// The rate the timecodes count at (the request's).
    core::FrameRate frameRate = core::kFps24;
    bool isDropFrame = false;
    /// The two timecodes as texts (HH:MM:SS:FF, ";" before the frames under drop-frame).
    std::string sessionStart;
    std::string videoStart;
    /// Session Start as a frame count at the rate.
    std::int64_t sessionStartFrame = 0;
    /// Frames from Session Start to Video Start, where the video is placed: 0 or more.
    std::int64_t videoStartFrame = 0;
    /// The markers the file holds after "VIDEO START", in order: one per distinct frame above 0.
    std::vector<PlannedCut> cuts;
};

/// The plan of the export `request` asks for. The cuts are the markers at distinct frames above
/// 0 (as frameDeltas keeps them), each named by `request.markerName` with markerText, numbered
/// from 1, at the timecode of its place on the session timeline (Session Start + videoStartFrame
/// + frame). No markers give a plan without cuts. Fails with exportError(invalidTimecode) when
/// either timecode has no frame count at the rate, and with
/// exportError(videoStartBeforeSessionStart) when Video Start comes before Session Start.
[[nodiscard]] core::Expected<MarkerPlan> planMarkerExport(const MarkerExport& request);

/// Where `marker` lies on the session timeline, as a timecode text: Session Start +
/// videoStartFrame + the frame timecodeFrameOf gives.
[[nodiscard]] std::string sessionTimecodeOf(const MarkerPlan& plan, const core::EditMarker& marker);

/// Where `time` of the video lies on the session timeline: sessionTimecodeOf a marker at `time`.
[[nodiscard]] std::string sessionTimecodeAt(const MarkerPlan& plan, const core::MediaTime& time);

/// What a scan could not read, in the terms of the export: the stretch read as timecodes on the
/// session timeline (so the cuts' timecodes fall inside it), and the damaged frames.
struct DamageSummary
{
    std::int64_t damagedFrames = 0;
    /// The stretch read: from the video's start to where the data ended when it ended early,
    /// else to the declared end (empty when the file declares none).
    std::string readFrom;
    std::string readUntil;
    double readSeconds = 0;
    /// Where the video should end by the duration its file declares; absent when it does not.
    std::optional<std::string> declaredUntil;
    std::optional<double> declaredSeconds;
    /// The data ended before the declared end.
    bool isCutShort = false;

    friend bool operator==(const DamageSummary&, const DamageSummary&) = default;
};

/// `damage` placed with `plan`; nothing when the scan read its video whole.
[[nodiscard]] std::optional<DamageSummary> summarizeDamage(const core::ReadDamage& damage,
                                                           const MarkerPlan& plan);

/// The summary in words, as the warnings show it: "only 01:00:00:00-01:00:07:22 of
/// 01:00:00:00-01:00:13:06 could be read, 1 damaged frame; cuts may be missing" (each part only
/// when it applies).
[[nodiscard]] std::string damageText(const DamageSummary& summary);

/// The first line of every cut list; the number is the version of the format.
inline constexpr std::string_view kCutListSignature = "# Kestrin cut list 1";

/// The cut list of `plan` for the video called `videoName`: UTF-8 text, lines ending in "\n",
/// fields separated by tabs. First kCutListSignature, then header lines "# key<TAB>value" (video,
/// frame rate as numerator/denominator, drop-frame yes/no, session start, video start, video
/// start frame), then the column line "frame<TAB>seconds<TAB>timecode<TAB>name" and one line per
/// cut: its frame, its seconds with six decimals, its timecode and its name. Tabs and line
/// breaks inside a name or the video's name are written as spaces. docs/architecture.md shows
/// an example.
[[nodiscard]] std::string cutListText(const MarkerPlan& plan, std::string_view videoName);

}  // namespace kestrin::app
