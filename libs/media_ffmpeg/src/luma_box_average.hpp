#pragma once

// Internal to the FFmpeg adapter: the frame reader's fast path for scaling a decoded picture's
// luma plane down by whole factors (1920 x 1080 and 3840 x 2160 to the scan's 96 x 54, and to its
// 320 x 180 thumbnails). Every frame of a scan goes through it; libswscale's area filter takes
// several times longer on a plane that is not in the cache, which is how decoded frames arrive.

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kestrin::media_ffmpeg::detail {

/// Whether a luma plane's samples span 0-255 (full) or 16-235 (video).
enum class LumaSourceRange : std::uint8_t { full, video };

/// Whether boxAverageLuma() can scale a plane of sourceWidth x sourceHeight to width x height:
/// both sizes at least 1 and each source size a whole multiple (at most 257) of the output size.
[[nodiscard]] bool canBoxAverage(int sourceWidth, int sourceHeight, int width, int height);

/// Scales the 8-bit luma plane at `source` (rows `bytesPerRow` apart) to width x height
/// full-range samples in `out` (rows back to back), each the mean of its block of source
/// samples, stretched from video range when the source is in it, rounded to nearest and limited
/// to 0-255. For whole factors this is exactly the area average. Requires canBoxAverage();
/// `rowSums` is scratch space, kept by the caller so that no frame allocates.
void boxAverageLuma(const std::uint8_t* source,
                    std::ptrdiff_t bytesPerRow,
                    int sourceWidth,
                    int sourceHeight,
                    LumaSourceRange range,
                    int width,
                    int height,
                    std::span<std::uint8_t> out,
                    std::vector<std::uint16_t>& rowSums);

}  // namespace kestrin::media_ffmpeg::detail
