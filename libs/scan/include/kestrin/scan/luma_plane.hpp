#pragma once

#include <kestrin/media/frame_reader.hpp>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kestrin::scan {

/// A small 8-bit luma image: width x height samples, row-major, rows back to back (row r starts at
/// r x width). The detectors use 96 x 54 for the signature pass and the refinement and 320 x 180
/// for the thumbnails that confirm sync samples. A plain value; not thread-safe to mutate.
class LumaPlane
{
public:
    /// An empty plane (0 x 0).
    LumaPlane() = default;
    /// A zero-filled plane; a size below 0 is taken as 0. Allocates width x height bytes.
    LumaPlane(int width, int height);

    [[nodiscard]] int width() const { return width_; }
    [[nodiscard]] int height() const { return height_; }
    /// width x height.
    [[nodiscard]] std::size_t size() const { return bytes_.size(); }
    [[nodiscard]] std::span<const std::uint8_t> bytes() const { return bytes_; }
    [[nodiscard]] std::span<std::uint8_t> bytes() { return bytes_; }
    /// The sample at column x, row y; both must lie inside the plane.
    [[nodiscard]] std::uint8_t at(int x, int y) const
    {
        return bytes_[static_cast<std::size_t>(y) * static_cast<std::size_t>(width_)
                      + static_cast<std::size_t>(x)];
    }

    friend bool operator==(const LumaPlane&, const LumaPlane&) = default;

private:
    int width_ = 0;
    int height_ = 0;
    std::vector<std::uint8_t> bytes_;
};

/// Whether `frame` carries a picture that can be read: it has an image, a size of at least 1 x 1
/// and a row stride of at least its width. Frames that fail this are skipped by every decoding
/// loop as if they had no image.
[[nodiscard]] bool isReadableFrame(const media::LumaFrame& frame);

/// Copies the luma of `frame` into `plane`, row by row, honouring the frame's row stride. Returns
/// false, leaving `plane` untouched, when the frame is not readable (isReadableFrame) or not of the
/// plane's size (readers deliver the size they are asked for, so that would be a reader's fault).
/// Allocates nothing; cost: one pass over the plane.
bool extractLumaPlane(const media::LumaFrame& frame, LumaPlane& plane);

}  // namespace kestrin::scan
