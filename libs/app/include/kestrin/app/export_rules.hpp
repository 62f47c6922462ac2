#pragma once

#include <kestrin/core/edit_marker.hpp>
#include <kestrin/core/error.hpp>
#include <kestrin/core/frame_rate.hpp>
#include <kestrin/midi/midi_export_service.hpp>
#include <kestrin/midi/midi_frame_rate.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::app {

/// Where the drop-frame decision comes from: what the user chose and what the file says; each
/// absent until known.
struct DropFrameSources
{
    std::optional<bool> userPrefersDropFrame;
    std::optional<bool> detectedIsDropFrame;
};

/// Whether drop-frame counting applies at `rate`: never where the rate has none (see
/// FrameRate::allowsDropFrame); there the user's choice, else the file's flag, else true.
[[nodiscard]] bool effectiveDropFrame(core::FrameRate rate, const DropFrameSources& sources);

/// The frame of the timecode at `rate` on which `marker` lies, counted from the video's start:
/// the marker's own time times the exact rate, rounded to the nearest frame (halves away from
/// zero); the marker's frame index when its time is not a number or the rate is not above 0. So a
/// cut at 2.0 s of a 15 fps video (its frame 30) lies on frame 48 at 24, 2.0 s into the session,
/// and a cut's frame of a video at a standard rate is its frame index.
[[nodiscard]] std::int64_t timecodeFrameOf(const core::EditMarker& marker, core::FrameRate rate);

/// Frames from Session Start to Video Start at `rate` (negative when the video starts before the
/// session); absent when either digit string is not a timecode at that rate.
[[nodiscard]] std::optional<std::int64_t> videoStartOffsetFrames(
    core::FrameRate rate,
    const DropFrameSources& sources,
    std::string_view sessionStartDigits,
    std::string_view videoStartDigits);

/// Why markers cannot be exported.
enum class ExportError : std::uint8_t { noMarkers, invalidTimecode, videoStartBeforeSessionStart };

/// The error value of `error`: domain "ExportError", its case as the code, its fixed text
/// ("There are no markers to export.", "Invalid timecode. Please check Session Start and Video
/// Start.", "Video Start is before Session Start.").
[[nodiscard]] core::Error exportError(ExportError error);

/// The text of the first marker of every file, where the video starts on the session timeline.
inline constexpr std::string_view kVideoStartMarkerName = "VIDEO START";

/// The text of cut markers unless the user chooses another: "Cut 1", "Cut 2", ... Workstations
/// such as Ardour drop a marker whose name is blank, so the default names every cut.
inline constexpr std::string_view kDefaultMarkerName = "Cut {n}";

/// The marker text of cut `number` (from 1) lying at `timecode`: `pattern` with every "{n}"
/// replaced by the number and every "{tc}" by the timecode; anything else is kept as written, so
/// " " names every cut " ".
[[nodiscard]] std::string markerText(std::string_view pattern,
                                     std::int64_t number,
                                     std::string_view timecode);

/// Everything an export needs besides the exporter.
struct MarkerExport
{
    std::vector<core::EditMarker> markers;
    core::FrameRate rate = core::kFps2997;
    DropFrameSources dropFrame;
    std::string_view sessionStartDigits = "00000000";
    std::string_view videoStartDigits = "01000000";
    /// The pattern of every cut marker's text (see markerText); the first marker is always
    /// kVideoStartMarkerName.
    std::string_view markerName = kDefaultMarkerName;
};

/// The bytes of the marker file: fails with noMarkers when there are no markers, with
/// invalidTimecode when a timecode has no frame count and with videoStartBeforeSessionStart when
/// the video would start before the session (the file has no place before its time zero);
/// otherwise the exporter's named export of
/// planMarkerExport's cuts (its own errors passed on): "VIDEO START" where the video is placed,
/// then one marker per planned cut.
[[nodiscard]] core::Expected<std::vector<std::uint8_t>> makeMIDIData(
    const MarkerExport& request, midi::MIDIExportService& exporter);

}  // namespace kestrin::app
