#include <kestrin/media/asset.hpp>
#include <kestrin/media/format_description.hpp>

#include <string>

namespace kestrin::media {

std::string fourCCText(FourCC code)
{
    std::string text(4, ' ');
    for (std::size_t i = 0; i < 4; ++i) {
        text[i] = static_cast<char>((code >> (24U - 8U * i)) & 0xFFU);
    }
    return text;
}

core::Expected<std::vector<TrackPointer>> Asset::tracksWithMediaType(MediaType type) const
{
    auto all = tracks();
    if (!all) {
        return all.error();
    }
    std::vector<TrackPointer> matching;
    for (const TrackPointer& track : *all) {
        if (track->mediaType() == type) {
            matching.push_back(track);
        }
    }
    return matching;
}

}  // namespace kestrin::media
