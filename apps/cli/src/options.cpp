#include "options.hpp"

#include <kestrin/app/export_rules.hpp>
#include <kestrin/timecode/timecode.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>

namespace kestrin::cli {

namespace {

core::Error usage(std::string message)
{
    return {"usage", 2, std::move(message)};
}

std::optional<double> parseNumber(std::string_view text)
{
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

// "25", "29.97" or "30000/1001", snapped to a standard rate.
std::optional<core::FrameRate> parseRate(std::string_view text)
{
    const std::size_t slash = text.find('/');
    std::optional<double> rate = parseNumber(text.substr(0, slash));
    if (rate && slash != std::string_view::npos) {
        const std::optional<double> divisor = parseNumber(text.substr(slash + 1));
        rate = divisor && *divisor > 0 ? std::optional(*rate / *divisor) : std::nullopt;
    }
    if (!rate || *rate <= 0 || *rate > 1000) {
        return std::nullopt;
    }
    return core::standardFrameRate(static_cast<float>(*rate));
}

// The digits of a timecode option's text: one to eight ASCII digits, which separators (":", ";",
// "." and spaces) may divide. Any other character refuses the text rather than being dropped, so
// that "01:0a:00:00" is not read as 00:10:00:00.
core::Expected<std::string> timecodeDigits(std::string_view option, std::string_view text)
{
    std::string digits;
    for (const char c : text) {
        if (c >= '0' && c <= '9') {
            digits += c;
        } else if (c != ':' && c != ';' && c != '.' && c != ' ') {
            return usage(std::string(option) + ": not a timecode: " + std::string(text)
                         + " (digits and the separators : ; . only)");
        }
    }
    if (digits.empty() || digits.size() > timecode::kTimecodeDigitCount) {
        return usage(std::string(option) + ": not a valid timecode: " + std::string(text));
    }
    return digits;
}

// `digits` padded to eight on the left: two such strings of valid timecodes compare as their
// times do, whatever the rate, since every group is two digits below 100.
std::string paddedDigits(std::string_view digits)
{
    return std::string(timecode::kTimecodeDigitCount - digits.size(), '0') + std::string(digits);
}

}  // namespace

bool Options::isDataOnStandardOutput() const
{
    return output == kStandardOutput || cutList == kStandardOutput;
}

bool isTimecodeAt(std::string_view digits, core::FrameRate rate, bool dropFrame)
{
    return timecode::isValidTimecodeDigits(
        digits,
        dropFrame ? timecode::FrameCounting::DropFrame : timecode::FrameCounting::NonDrop,
        rate);
}

core::Status checkCountingAt(std::optional<bool> dropFrame,
                             core::FrameRate rate,
                             std::string_view rateName)
{
    if (!dropFrame || rate.allowsDropFrame()) {
        return {};
    }
    return usage(std::string(*dropFrame ? "--drop-frame" : "--non-drop-frame")
                 + ": only 29.97 and 59.94 have drop-frame counting, not " + std::string(rateName));
}

core::Expected<Options> parseOptions(std::span<const std::string_view> args)
{
    Options options;
    struct TimecodeOption
    {
        std::string_view name;
        std::string_view text;
    };
    std::vector<TimecodeOption> timecodes;
    // The options that take one value, by their long names, as they come.
    std::vector<std::string_view> given;
    std::string_view rateText;
    bool onlyVideos = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string_view arg = args[i];
        if (onlyVideos || arg == "-" || !arg.starts_with('-')) {
            options.videos.emplace_back(arg);
            continue;
        }
        if (arg == "--") {
            onlyVideos = true;
            continue;
        }
        // --name=value is taken as --name value.
        std::optional<std::string_view> inlineValue;
        if (const std::size_t equals = arg.find('='); arg.starts_with("--") && equals != arg.npos) {
            inlineValue = arg.substr(equals + 1);
            arg = arg.substr(0, equals);
        }
        auto value = [&]() -> std::optional<std::string_view> {
            if (inlineValue) {
                return std::exchange(inlineValue, std::nullopt);
            }
            if (i + 1 < args.size()) {
                return args[++i];
            }
            return std::nullopt;
        };
        const bool takesValue = arg == "--session-start" || arg == "--video-start"
                                || arg == "--rate" || arg == "-o" || arg == "--output"
                                || arg == "--marker-name" || arg == "--detector"
                                || arg == "--cut-list";
        std::optional<std::string_view> text;
        if (takesValue) {
            text = value();
            if (!text) {
                return usage(std::string(arg) + " needs a value");
            }
            // A second value would silently replace the first.
            const std::string_view name = arg == "-o" ? "--output" : arg;
            if (std::ranges::find(given, name) != given.end()) {
                return usage(std::string(arg) + " is given more than once");
            }
            given.push_back(name);
        } else if (inlineValue) {
            return usage(std::string(arg) + " takes no value");
        }

        if (arg == "--session-start" || arg == "--video-start") {
            timecodes.push_back({arg, *text});
        } else if (arg == "--rate") {
            options.rate = parseRate(*text);
            rateText = *text;
            if (!options.rate) {
                return usage("--rate: not a frame rate: " + std::string(*text));
            }
        } else if (arg == "-o" || arg == "--output") {
            options.output = std::filesystem::path(*text);
        } else if (arg == "--marker-name") {
            options.markerName = *text;
        } else if (arg == "--cut-list") {
            options.cutList = std::filesystem::path(*text);
        } else if (arg == "--plain-midi") {
            options.layout = midi::MarkerFileLayout::Plain;
        } else if (arg == "--detector") {
            if (!scan::findDetector(*text)) {
                return usage("--detector: no detector called " + std::string(*text));
            }
            options.detector = *text;
        } else if (arg == "--drop-frame" || arg == "--non-drop-frame") {
            const bool dropFrame = arg == "--drop-frame";
            if (options.dropFrame == !dropFrame) {
                return usage("--drop-frame and --non-drop-frame exclude each other");
            }
            options.dropFrame = dropFrame;
        } else if (arg == "--no-midi") {
            options.writeMIDI = false;
        } else if (arg == "--json") {
            options.json = true;
        } else if (arg == "-q" || arg == "--quiet") {
            options.quiet = true;
        } else if (arg == "-v" || arg == "--verbose") {
            options.verbose = true;
        } else if (arg == "-h" || arg == "--help") {
            options.help = true;
        } else if (arg == "--version") {
            options.version = true;
        } else {
            return usage("unknown option " + std::string(arg));
        }
    }

    if (options.rate) {
        if (const core::Status counting = checkCountingAt(
                options.dropFrame, *options.rate, "--rate " + std::string(rateText));
            !counting) {
            return counting.error();
        }
    }

    // Checked against the rate in force: --rate when given; otherwise only what holds at every
    // rate, the rest once each video's rate is known.
    const core::FrameRate rate = options.rate.value_or(core::kFps60);
    const bool dropFrame =
        options.rate && app::effectiveDropFrame(rate, {options.dropFrame, std::nullopt});
    for (const TimecodeOption& option : timecodes) {
        const core::Expected<std::string> digits = timecodeDigits(option.name, option.text);
        if (!digits) {
            return digits.error();
        }
        if (!isTimecodeAt(*digits, rate, dropFrame)) {
            return usage(std::string(option.name)
                         + ": not a valid timecode: " + std::string(option.text));
        }
        (option.name == "--session-start" ? options.sessionStartDigits : options.videoStartDigits) =
            *digits;
    }
    // The marker file starts at Session Start; it has no place for a video that starts earlier.
    if (paddedDigits(options.videoStartDigits) < paddedDigits(options.sessionStartDigits)) {
        const auto shown = [](std::string_view digits) {
            return timecode::timecodeDisplayString(digits, timecode::FrameCounting::NonDrop);
        };
        return usage("--video-start (" + shown(options.videoStartDigits)
                     + ") is before --session-start (" + shown(options.sessionStartDigits) + ")");
    }

    if (options.help || options.version) {
        return options;
    }
    if (options.videos.empty()) {
        return usage("no video given");
    }
    if (options.output && options.videos.size() > 1) {
        return usage("--output needs exactly one video");
    }
    if (options.output && !options.writeMIDI) {
        return usage("--output and --no-midi exclude each other");
    }
    if (options.cutList && options.videos.size() > 1) {
        return usage("--cut-list needs exactly one video");
    }
    if (options.output == kStandardOutput && options.cutList == kStandardOutput) {
        return usage("--output and --cut-list cannot both write to standard output");
    }
    if (options.json && options.isDataOnStandardOutput()) {
        return usage(
            "--json cannot share standard output with "
            + std::string(options.output == kStandardOutput ? "--output -" : "--cut-list -"));
    }
    return options;
}

std::string helpText()
{
    std::string detectors;
    for (const scan::Detector& detector : scan::allDetectors()) {
        // Under the option, the descriptions in the column of the others.
        std::string name = "    " + detector.name;
        name.resize(std::max<std::size_t>(name.size() + 1, 23), ' ');
        detectors += name + detector.summary + "\n";
    }
    return R"(Usage: kestrin-scan [options] VIDEO...

Finds the picture cuts of each video and writes them as markers to <name>_Markers.mid beside it.

Options:
  --session-start TC   timecode of the session's start (default 00:00:00:00)
  --video-start TC     timecode where the video starts (default 01:00:00:00)
                       TC is HH:MM:SS:FF, HH:MM:SS;FF or plain digits (":", ";",
                       "." and spaces may separate them, nothing else); Video
                       Start may not be before Session Start
  --rate R             frame rate instead of the file's (25, 29.97, 30000/1001, ...)
  --drop-frame         count drop-frame at 29.97 and 59.94, whatever the file says
  --non-drop-frame     count non-drop at 29.97 and 59.94, whatever the file says
                       (either one refuses --rate or a video at another rate)
  -o, --output PATH    where to write the MIDI file (one video only); "-" writes it
                       to standard output (not a terminal), the report then going
                       to standard error
  --no-midi            scan only, write no MIDI file
  --plain-midi         write the MIDI file in the older plain layout: 19200 ticks
                       per quarter at 60 BPM, no frame-rate or channel event
                       (Ardour drops such a track, markers and all)
  --cut-list PATH      also write the cuts as a tab-separated list (one video only;
                       "-": standard output)
  --marker-name TEXT   text of the cut markers; {n} is the cut's number, {tc} its
                       timecode (default: "Cut {n}"; " " leaves them blank)
  --detector NAME      how cuts are found (default: )"
           + std::string(scan::kDefaultDetectorName) + R"():
)" + detectors
           + R"(  --json               print one JSON object per video (not with "-o -" or
                       "--cut-list -")
  -q, --quiet          no progress bar, no line per successful video
  -v, --verbose        print the scan's diagnostics to standard error
  -h, --help           print this help
  --version            print the version

Options that take a value may be given once.
Files are replaced whole or not at all; a link is written through. Before any scan
the tool refuses (status 2) an output that is one of the videos, two outputs that
are the same file, and an output that is a directory, a device, a FIFO or a socket.

Exit status: 0 when every video succeeded, 1 when any failed, 2 on a usage error,
3 when standard output could not be written (what it should hold is incomplete),
4 when every video was scanned but some could not be read whole (damaged frames,
or the file ends before the duration it declares): a warning on standard error
names the file, the stretch read and the damaged frames, "--json" adds them under
"warnings", and the cuts and files written are those of what could be read;
130 when interrupted.
)";
}

}  // namespace kestrin::cli
