#pragma once

#include <kestrin/core/edit_marker.hpp>
#include <kestrin/core/error.hpp>
#include <kestrin/core/log.hpp>
#include <kestrin/core/scan_mode.hpp>
#include <kestrin/core/sync_sample.hpp>
#include <kestrin/media/asset.hpp>
#include <kestrin/scan/cut_evidence.hpp>
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
    /// What the steps of this scan found out about picture changes, for the steps after them: a
    /// step that decodes frames leaves the evidence of its candidates here, so that verifyCuts()
    /// need not decode them again.
    CutEvidenceStore& evidence;
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
inline constexpr std::string_view kDefaultDetectorName = "default";

/// Every detector there is, the default first. Adding one: a file that makes it, and one line in
/// detector_registry.cpp. Cost: builds the list on every call (a few function objects).
[[nodiscard]] std::vector<Detector> allDetectors();

/// The detector called `name`; absent for a name no detector has.
[[nodiscard]] std::optional<Detector> findDetector(std::string_view name);

/// The detector a scan uses unless told otherwise (kDefaultDetectorName).
[[nodiscard]] Detector defaultDetector();

/// The detector a sound editor can rely on: every candidate verified from the frames around it
/// (verifyCuts), every marker on the first frame of its new shot in presentation order, with its
/// time and a confidence. Full decode: boundaryPassStep, then verifyCuts. Keyframe mode:
/// syncWindowStep, then verifyCuts.
[[nodiscard]] Detector verifiedDetector();

/// Decodes the whole track once as 96 x 54 luma and hands every frame to a BoundaryAnalyzer: each
/// change worth judging becomes a candidate (its frame counted in presentation order from 0, its
/// time the frame's own) with its evidence in the context's store. Progress by the frames'
/// times against the asset's duration, every kProgressInterval frames.
///
/// Errors: a failed load of the asset's duration; the errors of makeTrackReader; the reader's
/// error, else scan_error::failedToStartReading() or readerFailedDuringIteration();
/// scan_error::cancelled() on a stop (tested once per frame). Cost: one decode of the track and
/// one motion residual per frame; holds a handful of planes and one float per frame.
[[nodiscard]] core::Expected<std::vector<core::EditMarker>> boundaryPassStep(
    const DetectionContext& context, std::vector<core::EditMarker> candidates);

/// For every sync sample (collectSyncSamplesFast; none switches the scan to noKeyframes), decodes
/// kWindowFrames frames either side of it, with the lead-in its reader decodes on the way there
/// (the reference frames between the windows), and hands every frame, in time order, to one
/// BoundaryAnalyzer; frames are numbered by their time at frameRateRational(track). The strongest
/// change worth judging within kSyncReach frames of a sync sample (an open GOP puts a cut's first
/// frames before it in presentation order) is that sample's candidate. A change elsewhere that
/// judgeCut() accepts is a cut the encoder gave no sync sample, and a candidate too; when frames
/// between its two pictures were skipped (frames nothing refers to), the frames around it are
/// decoded to pin it. Each candidate's evidence goes to the store. Progress after each sync
/// sample.
///
/// Errors: as decodeWindowFrames; scan_error::cancelled() on a stop. Cost: the windows, decoded
/// one after another with the track's decoder handed from each to the next; the lead-in's
/// conversion and motion search (a few per cent of decoding it); and one window per cut without
/// a sync sample, which decodes from the sync sample before it.
[[nodiscard]] core::Expected<std::vector<core::EditMarker>> syncWindowStep(
    const DetectionContext& context, std::vector<core::EditMarker> candidates);

/// Frame durations decoded either side of a sync sample or a candidate without evidence: enough
/// for the flash test, few enough that a window costs little more than the decoding that reaching
/// its sync sample needs anyway (the lead-in gives the changes before it).
inline constexpr int kWindowFrames = 4;
/// How far from its sync sample a cut is looked for (an open GOP shows up to two leading pictures
/// of the new shot before its sync sample).
inline constexpr int kSyncReach = 2;

/// The verification stage: keeps the candidates that judgeCut() finds to be cuts, with its
/// confidence, and drops flashes, dissolves, fades, motion and changes of lighting. Evidence comes
/// from the context's store; a candidate without any is judged on the frames kWindowFrames either
/// side of it, decoded here (the strongest change worth judging within 2 frames of it stands for
/// it). Logs "verifyCuts: kept K of N candidates (W weak, F flash, G gradual, L lighting)."
/// Progress per candidate.
///
/// Errors: those of decoding a neighbourhood (as decodeWindowFrames); scan_error::cancelled().
[[nodiscard]] core::Expected<std::vector<core::EditMarker>> verifyCuts(
    const DetectionContext& context, std::vector<core::EditMarker> candidates);

/// The two detectors the tool began with, unchanged, for comparison and for files where they do
/// better: in keyframe mode the sync samples confirmed by confirmEditsNearSyncs (a marker carries
/// the sync sample's decode-order index), in full-decode mode detectEditsByDecoding. Their
/// parameters are the ones the scan has always used.
[[nodiscard]] Detector classicDetector();

/// The sync samples of the context's track (collectSyncSamplesFast, logging its line); when it
/// lists none, the scan is switched to noKeyframes, and a keyframe step then returns no markers.
/// Errors: collectSyncSamplesFast's.
[[nodiscard]] core::Expected<std::vector<core::SyncSample>> syncSamplesOrSwitch(
    const DetectionContext& context);

/// The keyframe step of classicDetector(): collectSyncSamplesFast, then confirmEditsNearSyncs
/// with the default ConfirmationParameters; a track without sync samples switches the scan to
/// noKeyframes with no markers.
[[nodiscard]] core::Expected<std::vector<core::EditMarker>> classicKeyframeStep(
    const DetectionContext& context, std::vector<core::EditMarker> candidates);

/// The full-decode step of classicDetector(): detectEditsByDecoding with the default options.
[[nodiscard]] core::Expected<std::vector<core::EditMarker>> classicFullDecodeStep(
    const DetectionContext& context, std::vector<core::EditMarker> candidates);

}  // namespace kestrin::scan
