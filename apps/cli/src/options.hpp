#pragma once

#include <kestrin/app/export_rules.hpp>
#include <kestrin/core/error.hpp>
#include <kestrin/core/frame_rate.hpp>
#include <kestrin/midi/midi_file_writer.hpp>
#include <kestrin/scan/detector.hpp>

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::cli {

/// What the command line asks for.
struct Options
{
    std::vector<std::filesystem::path> videos;
    /// Digit strings (numeric characters only, at most eight), as the export takes them.
    std::string sessionStartDigits = "00000000";
    std::string videoStartDigits = "01000000";
    std::optional<core::FrameRate> rate;  ///< --rate, snapped; absent: the file's rate
    std::optional<bool> dropFrame;        ///< --drop-frame / --non-drop-frame
    /// -o: where the MIDI file goes; kStandardOutput for standard output.
    std::optional<std::filesystem::path> output;
    bool writeMIDI = true;
    /// --plain-midi: the layout without what workstations need.
    midi::MarkerFileLayout layout = midi::MarkerFileLayout::Workstation;
    /// --cut-list: where to write the cut list too; kStandardOutput for standard output.
    std::optional<std::filesystem::path> cutList;
    /// --marker-name: the pattern of the cut markers' texts (see app::markerText).
    std::string markerName = std::string(app::kDefaultMarkerName);
    /// --detector: the name of a detector scan::findDetector() knows.
    std::string detector = std::string(scan::kDefaultDetectorName);
    bool json = false;
    bool quiet = false;
    bool verbose = false;
    bool help = false;
    bool version = false;

    /// Whether -o or --cut-list sends a file's bytes to standard output, which the report then
    /// leaves to standard error.
    [[nodiscard]] bool isDataOnStandardOutput() const;
};

/// The name -o and --cut-list take for standard output.
inline constexpr std::string_view kStandardOutput = "-";

/// The options in `args` (without the program name). A usage error comes back as an Error of
/// domain "usage" whose description is the one-line message (naming the option at fault).
[[nodiscard]] core::Expected<Options> parseOptions(std::span<const std::string_view> args);

/// The text --help prints.
[[nodiscard]] std::string helpText();

/// Whether the timecode text of --session-start or --video-start (its digits, see Options) names
/// a timecode at `rate` with `dropFrame` counting.
[[nodiscard]] bool isTimecodeAt(std::string_view digits, core::FrameRate rate, bool dropFrame);

/// Refuses a choice of counting (Options::dropFrame, from --drop-frame or --non-drop-frame) at
/// `rate` when the rate has no drop-frame counting, where the flag would do nothing; `rateName`
/// says whose rate it is in the message ("--rate 25", "this video's 25 fps").
[[nodiscard]] core::Status checkCountingAt(std::optional<bool> dropFrame,
                                           core::FrameRate rate,
                                           std::string_view rateName);

}  // namespace kestrin::cli
