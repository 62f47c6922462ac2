#include "robust_statistics.hpp"

#include <kestrin/scan/cut_evidence.hpp>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <utility>

namespace kestrin::scan {
namespace {

// Below this a change is not looked at further, whatever came before it (luma levels).
constexpr float kLookFloor = 1.0F;
// A change is looked at when it reaches this multiple of the median of the changes before it.
constexpr float kLookRise = 1.5F;
constexpr float kNormalConsistency = 1.4826F;

}  // namespace

const BoundaryAnalyzer::HeldFrame& BoundaryAnalyzer::held(std::int64_t position) const
{
    return frames_[static_cast<std::size_t>(position % kHeldFrames)];
}

void BoundaryAnalyzer::push(std::int64_t frameIndex,
                            const core::MediaTime& time,
                            const LumaPlane& plane)
{
    HeldFrame& slot = frames_[static_cast<std::size_t>(count_ % kHeldFrames)];
    slot.frameIndex = frameIndex;
    slot.time = time;
    slot.plane = plane;
    slot.moments = lumaMoments(plane);
    if (count_ == 0) {
        residuals_.push_back(0.0F);
    } else {
        const MotionResidual residual = motionResidual(held(count_ - 1).plane, plane, motion_);
        residuals_.push_back(residual.median);
        motion_ = residual.motion;
    }
    ++count_;
    // A change is examined once the kFlashFrames frames after it are here; the frames it compares
    // reach back kFlashFrames + 1 before it, which the ring still holds.
    while (nextToExamine_ + kFlashFrames <= count_ - 1) {
        examine(nextToExamine_, count_ - 1);
        ++nextToExamine_;
    }
    complete(false);
}

void BoundaryAnalyzer::finish()
{
    while (nextToExamine_ <= count_ - 1) {
        examine(nextToExamine_, count_ - 1);
        ++nextToExamine_;
    }
    complete(true);
}

std::vector<CutEvidence> BoundaryAnalyzer::takeEvidence()
{
    return std::exchange(ready_, {});
}

void BoundaryAnalyzer::examine(std::int64_t position, std::int64_t lastPosition)
{
    if (position < 1) {
        return;
    }
    const auto at = [this](std::int64_t p) {
        return residuals_[static_cast<std::size_t>(p)];
    };
    const float residual = at(position);
    std::vector<float> prior;
    for (std::int64_t p = std::max<std::int64_t>(1, position - kEvidenceReach); p < position; ++p) {
        prior.push_back(at(p));
    }
    if (residual < kLookFloor
        || (!prior.empty() && residual < kLookRise * detail::medianOf(std::span(prior)))) {
        return;
    }

    CutEvidence evidence;
    evidence.frameIndex = held(position).frameIndex;
    evidence.time = held(position).time;
    evidence.firstPossibleFrame = std::min(held(position - 1).frameIndex + 1, evidence.frameIndex);
    evidence.residual = residual;
    evidence.contrastBefore = held(position - 1).moments.deviation;
    evidence.contrastAfter = held(position).moments.deviation;
    // A change of exposure or lighting keeps the picture: measured again after matching it.
    matchLuma(
        held(position - 1).plane, held(position - 1).moments, held(position).moments, matched_);
    evidence.matchedResidual = motionResidual(matched_, held(position).plane).median;
    evidence.correlation = lumaCorrelation(held(position - 1).plane, held(position).plane);
    for (std::int64_t k = 1; k <= kFlashFrames; ++k) {
        if (position + k <= lastPosition) {
            evidence.returnResidual =
                std::min(evidence.returnResidual,
                         motionResidual(held(position - 1).plane, held(position + k).plane).median);
        }
        if (position - 1 - k >= 0) {
            evidence.returnResidual =
                std::min(evidence.returnResidual,
                         motionResidual(held(position - 1 - k).plane, held(position).plane).median);
        }
    }
    for (std::int64_t p = position - 1; p >= std::max<std::int64_t>(1, position - kEvidenceReach);
         --p) {
        evidence.before.push_back(at(p));
    }
    waiting_.emplace_back(position, std::move(evidence));
}

void BoundaryAnalyzer::complete(bool isFinal)
{
    while (!waiting_.empty()
           && (isFinal || waiting_.front().first + kEvidenceReach <= count_ - 1)) {
        auto [position, evidence] = std::move(waiting_.front());
        waiting_.pop_front();
        for (std::int64_t p = position + 1; p <= std::min(position + kEvidenceReach, count_ - 1);
             ++p) {
            evidence.after.push_back(residuals_[static_cast<std::size_t>(p)]);
        }
        ready_.push_back(std::move(evidence));
    }
}

CutVerdict judgeCut(const CutEvidence& evidence)
{
    const float residual = evidence.residual;
    std::vector<float> around = evidence.before;
    around.insert(around.end(), evidence.after.begin(), evidence.after.end());
    const float centre = detail::medianOf(std::span(around));
    const float spread = kNormalConsistency * detail::medianAbsoluteDeviation(around, centre);
    const float excess = residual - centre;
    const float contrast = std::sqrt((evidence.contrastBefore * evidence.contrastBefore
                                      + evidence.contrastAfter * evidence.contrastAfter)
                                     / 2.0F);
    // The fourth largest change around: the largest that is not one of up to three other cuts.
    std::vector<float> largest = around;
    const auto fourth = largest.begin() + std::min<std::ptrdiff_t>(3, std::ssize(largest));
    std::nth_element(largest.begin(), fourth, largest.end(), std::greater<>());
    const float ordinaryPeak = fourth != largest.end() ? *fourth : 0.0F;
    // How far the change clears each bar: 1 when it just does.
    const float aboveMotion =
        std::min(excess / std::max(kCutDeviations * spread, kMinimumCutExcess),
                 ordinaryPeak > 0.0F ? residual / (kCutOverPeaks * ordinaryPeak)
                                     : std::numeric_limits<float>::infinity());
    const float aboveContrast =
        contrast > 0.0F ? excess / (kCutContrastShare * contrast) : aboveMotion;
    if (!(aboveMotion >= 1.0F && aboveContrast >= 1.0F)) {
        return {false, 0.0F, "weak"};
    }
    if (evidence.returnResidual < kReturnShare * residual) {
        return {false, 0.0F, "flash"};
    }
    const float neighbour = std::max(evidence.before.empty() ? 0.0F : evidence.before.front(),
                                     evidence.after.empty() ? 0.0F : evidence.after.front());
    if (neighbour >= kGradualShare * residual) {
        return {false, 0.0F, "gradual"};
    }
    // Matching the exposure cannot make a flat picture textured or halve a contrast beyond the
    // gain matchLuma allows; within that, a change it removes between pictures of the same
    // structure kept the picture.
    const float low = std::min(evidence.contrastBefore, evidence.contrastAfter);
    const float high = std::max(evidence.contrastBefore, evidence.contrastAfter);
    if (high <= 2.0F * low && evidence.correlation >= kLightingCorrelation
        && evidence.matchedResidual < kLightingShare * residual) {
        return {false, 0.0F, "lighting"};
    }
    const float strength = std::min(aboveMotion, aboveContrast);
    const float confidence = (1.0F - 0.5F / strength) * (1.0F - neighbour / residual);
    return {true, std::clamp(confidence, 0.0F, 1.0F), {}};
}

void CutEvidenceStore::add(CutEvidence evidence)
{
    const std::int64_t frame = evidence.frameIndex;
    byFrame_.insert_or_assign(frame, std::move(evidence));
}

const CutEvidence* CutEvidenceStore::find(std::int64_t frameIndex) const
{
    const auto found = byFrame_.find(frameIndex);
    return found == byFrame_.end() ? nullptr : &found->second;
}

}  // namespace kestrin::scan
