#pragma once

#include <kestrin/scan/luma_plane.hpp>

#include <array>
#include <cstdint>

namespace kestrin::scan {

/// The tone curve applied to signature planes before they are compared: it lifts the shadows
/// (where a fade or a grade moves little) and flattens the highlights, so that block scores follow
/// visible change rather than raw code values. Entry v, in 32-bit float arithmetic:
///
///     x = max(v / 255 - 0.025, 0)
///     y = (x / 0.975)^0.65 * 1.08 + 0.06
///     entry = round(min(y, 1) * 255), halves away from zero
///
///     v        0..6   7   16   64   128   192   207..255
///     entry    15     21  49   122  188   243   255
///
/// y never drops below 0.06, so no entry is below 15. Built on first use under the language's
/// thread-safe static initialisation, then read-only: safe to call from any thread.
[[nodiscard]] const std::array<std::uint8_t, 256>& signatureToneCurve();

/// Maps every sample of `plane` through signatureToneCurve(), in place. Allocates nothing.
void applySignatureToneCurve(LumaPlane& plane);

/// How much `current` differs from `previous`, robust against a small region of local change
/// (a caption, a moving object): the plane is cut into 6 block rows and 8 block columns, each block
/// scores the mean absolute difference of its pixels, and the result is the 10% trimmed mean of the
/// block scores.
///
/// Block height is height / 6 (at least 1), block width width / 8 (1 when width < 8); the last
/// block row and column extend to the plane's edge, and empty blocks (small planes) are left out.
/// With n non-empty blocks: n = 0 gives 0, n = 1..4 their plain mean; otherwise the lowest and the
/// highest t = floor(n * 0.1) are dropped. For 96 x 54:
///
///     blocks         8 columns of 12 pixels x 6 rows of 9 pixels = 48 blocks of 108 pixels
///     trimmed        t = 4 lowest and 4 highest
///     score          mean of the 40 middle block scores
///
/// Both planes must have the same size; planes of different sizes are not compared and give 0.
/// Allocates nothing; cost: one pass over the plane and a sort of at most 48 values.
[[nodiscard]] float blockDifferenceScore(const LumaPlane& current, const LumaPlane& previous);

/// The mean absolute difference of two planes of the same size over all their samples, as used to
/// pin a cut to one frame. An empty plane, or planes of different sizes, give 0. Allocates nothing.
[[nodiscard]] float meanAbsoluteDifference(const LumaPlane& a, const LumaPlane& b);

}  // namespace kestrin::scan
