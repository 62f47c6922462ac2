#pragma once

#include <kestrin/core/edit_marker.hpp>
#include <kestrin/core/error.hpp>
#include <kestrin/core/log.hpp>
#include <kestrin/core/scan_mode.hpp>
#include <kestrin/media/asset.hpp>
#include <kestrin/scan/frame_access.hpp>

#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::scan {

/// What a detection step works on and reports to, made by the scan for one call of one step.
/// The references stay valid for the call only.
struct DetectionContext
{
    const media::Asset& asset;
    /// The scanned track: the asset's first video track.
    const media::Track& track;
    /// The mode the scan chose for the track (the step runs because its detector runs in it).
    core::ScanMode mode = core::ScanMode::noKeyframes;
    const core::Log& log;
    /// Stopped when the scan is to stop: a step tests it at least once per decoded frame and hands
    /// it to every reader it makes; its result is then ignored (the scan ends as cancelled).
    std::stop_token stopToken;
    /// The step's own progress, 0 to 1, never decreasing; the scan maps it onto the step's share of
    /// the whole scan. Called on the step's thread.
    ProgressCallback reportProgress;
    /// For a step that finds its mode does not apply after all (a trusted track that lists no sync
    /// sample): tells the scan the mode that does. The scan then ends with the step's result,
    /// sending progress(1.0) and the new mode as its last events; later steps do not run.
    std::function<void(core::ScanMode)> switchMode;
};

/// One step of a detector: from the candidates of the step before it (none for the first step)
/// to its own, ordered by frame index. The error ends the scan.
using DetectionStep = std::function<core::Expected<std::vector<core::EditMarker>>(
    const DetectionContext& context, std::vector<core::EditMarker> candidates)>;

/// A step and the share of the scan's progress its work covers.
struct DetectionStage
{
    DetectionStep run;
    /// Relative weight; a detector's stages for one mode divide the progress in these proportions.
    double progressShare = 1.0;
};

/// A way of finding the edits of a track: the stages it runs, in order, in each scan mode. The
/// scan decides the mode; the stages of that mode then turn the track into its markers.
struct Detector
{
    /// Chosen by this name on the command line; lower case, no spaces.
    std::string name{};
    /// One line for --help and the manual.
    std::string summary{};
    std::vector<DetectionStage> keyframeStages{};
    std::vector<DetectionStage> fullDecodeStages{};

    [[nodiscard]] const std::vector<DetectionStage>& stagesFor(core::ScanMode mode) const
    {
        return mode == core::ScanMode::trustedKeyframes ? keyframeStages : fullDecodeStages;
    }
};

/// The name of the detector a scan uses unless told otherwise.
inline constexpr std::string_view kDefaultDetectorName = "classic";

/// Every detector there is, the default first. Adding one: a file that makes it, and one line in
/// detector_registry.cpp. Cost: builds the list on every call (a few function objects).
[[nodiscard]] std::vector<Detector> allDetectors();

/// The detector called `name`; absent for a name no detector has.
[[nodiscard]] std::optional<Detector> findDetector(std::string_view name);

/// The detector a scan uses unless told otherwise (kDefaultDetectorName).
[[nodiscard]] Detector defaultDetector();

/// The two detectors the tool began with, unchanged, for comparison and for files where they do
/// better: in keyframe mode the sync samples confirmed by confirmEditsNearSyncs (a marker carries
/// the sync sample's decode-order index), in full-decode mode detectEditsByDecoding. Their
/// parameters are the ones the scan has always used.
[[nodiscard]] Detector classicDetector();

/// The keyframe step of classicDetector(): collectSyncSamplesFast, then confirmEditsNearSyncs
/// with the default ConfirmationParameters; a track without sync samples switches the scan to
/// noKeyframes with no markers.
[[nodiscard]] core::Expected<std::vector<core::EditMarker>> classicKeyframeStep(
    const DetectionContext& context, std::vector<core::EditMarker> candidates);

/// The full-decode step of classicDetector(): detectEditsByDecoding with the default options.
[[nodiscard]] core::Expected<std::vector<core::EditMarker>> classicFullDecodeStep(
    const DetectionContext& context, std::vector<core::EditMarker> candidates);

}  // namespace kestrin::scan
