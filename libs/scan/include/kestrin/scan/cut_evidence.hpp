#pragma once

#include <kestrin/core/media_time.hpp>
#include <kestrin/scan/luma_plane.hpp>
#include <kestrin/scan/motion_residual.hpp>

#include <array>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

namespace kestrin::scan {

/// How many changes either side of a picture change its evidence keeps.
inline constexpr int kEvidenceReach = 8;
/// A picture that comes back within this many frames of a change made a flash, not a cut.
inline constexpr int kFlashFrames = 3;

/// What the frames around one picture change say about it: everything a cut is judged on.
struct CutEvidence
{
    /// The first frame after the change, in presentation order, and its presentation time.
    std::int64_t frameIndex = 0;
    core::MediaTime time;
    /// The frame after the picture before the change: frameIndex itself when the two pictures are
    /// neighbours, earlier when frames between them were not seen (the change then happened on
    /// one of the frames from this one to frameIndex).
    std::int64_t firstPossibleFrame = 0;
    /// The motion residual (MotionResidual::median) from the frame before to this one.
    float residual = 0.0F;
    /// The residuals of the changes before this one, nearest first, and of those after it; up to
    /// kEvidenceReach each, fewer at the ends of what was decoded.
    std::vector<float> before;
    std::vector<float> after;
    /// The smallest motion residual between the picture before the change and one of the
    /// kFlashFrames pictures after it, or between the picture after it and one of the
    /// kFlashFrames pictures before the one before: low when the picture returns (a flash, a
    /// corrupt frame). Infinite when there was no such pair to compare.
    float returnResidual = std::numeric_limits<float>::infinity();
    /// The residual once the picture before the change is matched to the mean and deviation of
    /// the picture after it (matchLuma): small when only exposure or lighting changed.
    float matchedResidual = 0.0F;
    /// The correlation of the two pictures (lumaCorrelation): near 1 when the picture stayed.
    float correlation = 0.0F;
    /// The luma standard deviation of the picture before the change and of the picture after it.
    float contrastBefore = 0.0F;
    float contrastAfter = 0.0F;
};

/// Looks at a run of consecutive frames, one at a time, and gathers the evidence of every change
/// worth judging: one whose motion residual rises clearly above the changes just before it.
///
/// Keeps the last 2 x kFlashFrames + 2 planes and one residual per frame. Used by one thread.
class BoundaryAnalyzer
{
public:
    /// Takes the next frame of the run: its presentation-order index, its time and its luma (every
    /// plane of a run of one size). Cost: one motion residual per frame, and for a change worth
    /// judging 2 x kFlashFrames more once kFlashFrames further frames have come.
    void push(std::int64_t frameIndex, const core::MediaTime& time, const LumaPlane& plane);

    /// Ends the run: the last changes are judged with the frames there are.
    void finish();

    /// The evidence gathered so far whose reach is complete (all of it after finish()), in frame
    /// order; each is handed out once.
    [[nodiscard]] std::vector<CutEvidence> takeEvidence();

    /// The motion residual of every change so far: entry i is the change into the run's frame i
    /// (entry 0, before the first frame, is 0).
    [[nodiscard]] const std::vector<float>& residuals() const { return residuals_; }

private:
    struct HeldFrame
    {
        std::int64_t frameIndex = 0;
        core::MediaTime time;
        LumaPlane plane;
        LumaMoments moments;
    };

    void examine(std::int64_t position, std::int64_t lastPosition);
    void complete(bool isFinal);
    [[nodiscard]] const HeldFrame& held(std::int64_t position) const;

    static constexpr std::int64_t kHeldFrames = 2 * kFlashFrames + 2;
    std::array<HeldFrame, kHeldFrames> frames_{};
    std::int64_t count_ = 0;
    /// The next position whose change has not been examined.
    std::int64_t nextToExamine_ = 1;
    Shift motion_;
    /// Scratch: a picture matched to the exposure of the one after it.
    LumaPlane matched_;
    std::vector<float> residuals_;
    /// Examined changes worth judging, waiting for the residuals after them.
    std::deque<std::pair<std::int64_t, CutEvidence>> waiting_;
    std::vector<CutEvidence> ready_;
};

/// The verdict on one change.
struct CutVerdict
{
    bool isCut = false;
    /// For a cut, how clearly it is one, above 0 up to 1 (how far it clears the bars below, less
    /// the share of its change that its larger neighbour repeats); 0 otherwise.
    float confidence = 0.0F;
    /// Why not, for the log: "weak", "flash", "gradual", "lighting"; empty for a cut.
    std::string_view reason;
};

/// The bars a cut must clear. Each is a property of the pictures, not of any clip:
/// the change must exceed the changes around it (the motion and noise of the two shots) by
/// kCutDeviations robust deviations of them, and by at least kMinimumCutExcess luma levels;
inline constexpr float kCutDeviations = 3.0F;
inline constexpr float kMinimumCutExcess = 1.5F;
/// it must be this many times the fourth largest change around it, so that the peaks of a regular
/// judder or of a shaking camera do not pass while up to three other cuts nearby do;
inline constexpr float kCutOverPeaks = 2.0F;
/// and by this share of the pictures' contrast (the root mean square of their luma deviations): a
/// new shot replaces the picture's content, so its residual is a sizable part of what the
/// pictures vary by (two unrelated pictures: half of it or more), while a compression pulse or a
/// judder leaves a few per cent. Dark or flat pictures have a small contrast and pass with small
/// changes.
inline constexpr float kCutContrastShare = 0.1F;
/// A change after which (or before which) the earlier picture returns to within this share of it
/// is a flash or a corrupt frame;
inline constexpr float kReturnShare = 0.2F;
/// a change whose larger neighbour is at least this share of it is spread over frames (a
/// dissolve, a fade, a wipe, motion blur), not a cut;
inline constexpr float kGradualShare = 0.5F;
/// and a change between pictures that correlate by at least kLightingCorrelation, and that
/// matching the earlier picture's exposure to the later one's (matchLuma) leaves below
/// kLightingShare of, is a change of lighting or exposure: the picture stayed.
inline constexpr float kLightingCorrelation = 0.9F;
inline constexpr float kLightingShare = 0.15F;

/// Judges a change from its evidence alone: a cut clears the bars above, else it is "weak",
/// "flash", "gradual" or "lighting" (tested in that order). The median and the deviation of the
/// changes around are taken over both sides together. Pure; cost: two small sorts.
[[nodiscard]] CutVerdict judgeCut(const CutEvidence& evidence);

/// The evidence gathered during one scan, by frame index, for the stages after the one that
/// decoded the frames. Used by one thread at a time.
class CutEvidenceStore
{
public:
    void add(CutEvidence evidence);
    /// The evidence of the change into `frameIndex`, if gathered.
    [[nodiscard]] const CutEvidence* find(std::int64_t frameIndex) const;

private:
    std::map<std::int64_t, CutEvidence> byFrame_;
};

}  // namespace kestrin::scan
