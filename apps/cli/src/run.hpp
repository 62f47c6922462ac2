#pragma once

#include "options.hpp"

#include <kestrin/app/marker_plan.hpp>
#include <kestrin/core/error.hpp>
#include <kestrin/core/scan_mode.hpp>
#include <kestrin/media/asset.hpp>
#include <kestrin/scan/video_scan_service.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace kestrin::cli {

/// One cut as the tool reports it.
struct CutReport
{
    std::int64_t frameIndex = 0;
    double seconds = 0;
    std::string timecode;  ///< on the session timeline: Video Start + the cut's frame
    /// How sure the detector is of the cut, 0 to 1; absent when it does not say.
    std::optional<float> confidence;
};

/// The outcome of one video: either an error or what was found (and written).
struct VideoReport
{
    std::filesystem::path file;
    std::optional<core::Error> error;
    core::ScanMode mode = core::ScanMode::trustedKeyframes;
    float nominalFPS = 0;
    bool dropFrame = false;
    std::vector<CutReport> cuts;
    /// Set when the scan succeeded without reading the whole video: its cuts may be incomplete.
    std::optional<app::DamageSummary> damage;
    /// The MIDI file written; kStandardOutput when its bytes are in `standardOutput`.
    std::optional<std::filesystem::path> midi;
    /// The cut list written; kStandardOutput when its text is in `standardOutput`.
    std::optional<std::filesystem::path> cutList;
    /// What -o - or --cut-list - sends to standard output, for the caller to write.
    std::vector<std::uint8_t> standardOutput;
};

/// Lets another thread stop the run: stops the scan in progress and every later one.
class Interruption
{
public:
    /// Marks the run interrupted and asks the current scan, if any, to stop.
    void interrupt();
    [[nodiscard]] bool interrupted() const;
    /// Stopped once the run is interrupted: for the work outside a scan (reading a file's
    /// timing).
    [[nodiscard]] std::stop_token stopToken() const { return stop_.get_token(); }

    /// The scan in progress, from attach to detach (by the thread that runs it).
    void attach(scan::ScanHandle& handle);
    void detach();

private:
    mutable std::mutex mutex_;
    std::stop_source stop_;  // thread-safe on its own
    bool interrupted_ = false;
    scan::ScanHandle* current_ = nullptr;
};

/// Scans videos and writes their MIDI files as `options` say.
class VideoRunner
{
public:
    /// Called with the fraction done of the current video (0 to 1).
    using Progress = std::function<void(double)>;

    VideoRunner(const Options& options,
                std::shared_ptr<const media::AssetOpener> opener,
                core::Log log,
                Interruption& interruption);

    /// Scans `video` and, unless the options say otherwise, writes its MIDI file with
    /// core::writeFileSafely (none when no cut was found), then the cut list when asked (also
    /// without cuts); nothing when the scan fails or is interrupted. What goes to standard output
    /// is left in the report's `standardOutput`.
    [[nodiscard]] VideoReport run(const std::filesystem::path& video,
                                  const Progress& progress = {}) const;

private:
    const Options& options_;
    std::shared_ptr<const media::AssetOpener> opener_;
    scan::VideoScanService service_;
    Interruption& interruption_;
};

/// Where the MIDI file of `video` goes by default: `<name>_Markers.mid` beside it.
[[nodiscard]] std::filesystem::path defaultMIDIPath(const std::filesystem::path& video);

/// Checks, before any scan, the files the run would write (core::resolveWriteTarget): fails with
/// a usage error (domain "usage", code 2) when one is, or leads to, one of the videos (the same
/// file, through links and hard links too), when two writes would land on the same file (two
/// videos with one default name, --cut-list the MIDI file), or when one is a directory or a
/// special file. What only the write can tell (a missing directory, no permission) is left to it.
[[nodiscard]] core::Status checkOutputs(const Options& options);

}  // namespace kestrin::cli
