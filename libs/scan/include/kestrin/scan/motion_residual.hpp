#pragma once

#include <kestrin/scan/luma_plane.hpp>

#include <cstdint>

namespace kestrin::scan {

/// Block size of the motion search, in samples: a 96 x 54 plane is 6 x 6 blocks.
inline constexpr int kMotionBlockWidth = 16;
inline constexpr int kMotionBlockHeight = 9;
/// Every block is searched this many samples either way around no motion (and around the hint).
inline constexpr int kMotionSearchRadius = 4;

/// A displacement in samples.
struct Shift
{
    int dx = 0;
    int dy = 0;

    friend bool operator==(const Shift&, const Shift&) = default;
};

/// How much of the change from one picture to the next motion cannot explain.
struct MotionResidual
{
    /// The median over the blocks of the later picture of their mean absolute difference (luma
    /// levels) to the best-matching block of the earlier picture. The median, because a cut
    /// changes nearly every block while a moving object, an occlusion or a local flash changes
    /// few: it stays near the noise level for motion, and near the plain difference for a cut.
    float median = 0.0F;
    /// The mean over the blocks of the same differences.
    float mean = 0.0F;
    /// The median displacement of the blocks' best matches: the picture's global motion, the hint
    /// for the next pair of a sequence.
    Shift motion;
};

/// The motion residual from `earlier` to `later` (planes of equal size, at least one block). Each
/// block of `later` is compared with the blocks of `earlier` displaced by up to
/// kMotionSearchRadius samples either way around no motion, and by up to 2 around the whole
/// picture's motion (searched on halved planes up to 12 samples either way, for planes up to
/// 128 x 80) and around `hint` (pass the previous pair's motion, so that a steady pan faster
/// still is followed); displacements that would leave the plane are not tried. Planes of
/// different sizes give a residual of 0.
///
/// Cost for 96 x 54: a coarse search of 169 displacements over 540 samples, then about 36 blocks
/// x up to 131 displacements x 9 rows of 16-sample sums (vectorised); some 100 microseconds.
/// Allocates nothing. Any thread.
[[nodiscard]] MotionResidual motionResidual(const LumaPlane& earlier,
                                            const LumaPlane& later,
                                            Shift hint = {});

/// The mean luma of `plane` and its standard deviation (the picture's contrast), in luma levels;
/// both 0 for an empty plane.
struct LumaMoments
{
    float mean = 0.0F;
    float deviation = 0.0F;
};
[[nodiscard]] LumaMoments lumaMoments(const LumaPlane& plane);

/// `source` (whose moments are `from`) with its luma mapped linearly onto the moments `to`, into
/// `out` (resized to match): the gain is the ratio of the deviations, limited to 0.5 ... 2, and the
/// offset moves the mean. Comparing the result with the picture of moments `to` leaves out a
/// change of exposure or lighting, which keeps the picture's structure; a new shot does not.
/// Cost: one table lookup per sample. Any thread.
void matchLuma(const LumaPlane& source, LumaMoments from, LumaMoments to, LumaPlane& out);

/// The Pearson correlation of two planes of equal size, sample by sample: near 1 when one is the
/// other under a change of exposure, near 0 for unrelated pictures; 0 when either is flat or the
/// sizes differ. Cost: one pass. Any thread.
[[nodiscard]] float lumaCorrelation(const LumaPlane& a, const LumaPlane& b);

}  // namespace kestrin::scan
