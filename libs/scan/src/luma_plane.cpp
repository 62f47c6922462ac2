#include <kestrin/scan/luma_plane.hpp>

#include <algorithm>
#include <cstring>

namespace kestrin::scan {
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
    if (!isReadableFrame(frame) || frame.width != plane.width() || frame.height != plane.height()) {
        return false;
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
