#include <kestrin/scan/detector.hpp>
#include <kestrin/scan/edit_confirmation.hpp>
#include <kestrin/scan/edit_detection.hpp>
#include <kestrin/scan/keyframe_trust.hpp>

#include <utility>

namespace kestrin::scan {

core::Expected<std::vector<core::SyncSample>> syncSamplesOrSwitch(const DetectionContext& context)
{
    core::Expected<std::vector<core::SyncSample>> syncs =
        collectSyncSamplesFast(context.track, context.log, context.stopToken);
    if (syncs && syncs->empty()) {
        // Nothing to confirm: no edits. Decoding the whole file instead is deliberately not tried;
        // the consumer learns the mode changed and the scan is done.
        context.switchMode(core::ScanMode::noKeyframes);
    }
    return syncs;
}

core::Expected<std::vector<core::EditMarker>> classicKeyframeStep(
    const DetectionContext& context, std::vector<core::EditMarker> /*candidates*/)
{
    const core::Expected<std::vector<core::SyncSample>> syncs = syncSamplesOrSwitch(context);
    if (!syncs) {
        return syncs.error();
    }
    if (syncs->empty()) {
        return std::vector<core::EditMarker>{};
    }
    return confirmEditsNearSyncs(context.asset,
                                 context.track,
                                 *syncs,
                                 ConfirmationParameters{},
                                 context.reportProgress,
                                 context.log,
                                 context.stopToken);
}

core::Expected<std::vector<core::EditMarker>> classicFullDecodeStep(
    const DetectionContext& context, std::vector<core::EditMarker> /*candidates*/)
{
    return detectEditsByDecoding(
        context.asset, context.track, context.reportProgress, context.stopToken);
}

Detector classicDetector()
{
    return Detector{
        .name = "classic",
        .summary = "the first detectors, unverified (keyframe markers in decode order)",
        .keyframeStages = {DetectionStage{classicKeyframeStep, 1.0}},
        .fullDecodeStages = {DetectionStage{classicFullDecodeStep, 1.0}},
    };
}

}  // namespace kestrin::scan
