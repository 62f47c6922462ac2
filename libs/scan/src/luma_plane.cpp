#include <kestrin/scan/luma_plane.hpp>

#include <algorithm>
#include <cstring>

namespace kestrin::scan {
namespace {

// Box resampling for a frame whose size differs from the plane's. Destination column x takes the
// source columns [x * sw / dw, (x + 1) * sw / dw), at least one, and likewise for rows; so a
// shrink averages whole source boxes and an enlargement repeats the nearest source sample.
void resampleBox(const media::LumaFrame& frame, LumaPlane& plane)
{
    const std::int64_t sourceWidth = frame.width;
    const std::int64_t sourceHeight = frame.height;
    const std::int64_t width = plane.width();
    const std::int64_t height = plane.height();
    std::uint8_t* out = plane.bytes().data();
    for (std::int64_t y = 0; y < height; ++y) {
        const std::int64_t top = y * sourceHeight / height;
        const std::int64_t bottom = std::max(top + 1, (y + 1) * sourceHeight / height);
        for (std::int64_t x = 0; x < width; ++x) {
            const std::int64_t left = x * sourceWidth / width;
            const std::int64_t right = std::max(left + 1, (x + 1) * sourceWidth / width);
            std::int64_t sum = 0;
            for (std::int64_t row = top; row < bottom; ++row) {
                const std::uint8_t* source = frame.data + row * frame.bytesPerRow;
                for (std::int64_t column = left; column < right; ++column) {
                    sum += source[column];
                }
            }
            const std::int64_t count = (bottom - top) * (right - left);
            *out++ = static_cast<std::uint8_t>((sum + count / 2) / count);
        }
    }
}

}  // namespace

LumaPlane::LumaPlane(int width, int height)
    : width_(std::max(width, 0))
    , height_(std::max(height, 0))
    , bytes_(static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_), 0)
{}

bool isReadableFrame(const media::LumaFrame& frame)
{
    return frame.hasImage() && frame.width >= 1 && frame.height >= 1
           && frame.bytesPerRow >= frame.width;
}

bool extractLumaPlane(const media::LumaFrame& frame, LumaPlane& plane)
{
    if (!isReadableFrame(frame)) {
        return false;
    }
    if (plane.size() == 0) {
        return true;
    }
    if (frame.width != plane.width() || frame.height != plane.height()) {
        resampleBox(frame, plane);
        return true;
    }
    const auto rowBytes = static_cast<std::size_t>(plane.width());
    std::uint8_t* out = plane.bytes().data();
    if (frame.bytesPerRow == frame.width) {
        std::memcpy(out, frame.data, plane.size());
        return true;
    }
    const std::uint8_t* source = frame.data;
    for (int row = 0; row < plane.height(); ++row) {
        std::memcpy(out, source, rowBytes);
        out += rowBytes;
        source += frame.bytesPerRow;
    }
    return true;
}

}  // namespace kestrin::scan
