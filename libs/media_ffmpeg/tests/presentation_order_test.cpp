#include "presentation_order.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrin::media_ffmpeg::detail {
namespace {

// One picture of a row: its type ('I', 'P', 'B'; 'K' for an IDR picture), its picture order
// count (-1: the codec has none) and its decode stamp (-1: the packet has none).
struct Picture
{
    char type;
    int orderCount;
    std::int64_t decodeStamp;
};

PictureInOrder pictureOf(const Picture& picture)
{
    PictureInOrder result;
    if (picture.decodeStamp >= 0) {
        result.decodeStamp = picture.decodeStamp;
    }
    result.isBidirectional = picture.type == 'B';
    if (picture.orderCount >= 0) {
        result.pictureOrderCount = picture.orderCount;
    }
    result.startsClosedGroup = picture.type == 'K';
    return result;
}

// The rows of the derivation in presentation_order.hpp: the k-th picture shown gets the k-th
// decode stamp, and a stamp is handed out only once nothing still to come can change it.
TEST(PresentationOrder, GivesTheKthShownPictureTheKthDecodeStamp)
{
    struct Row
    {
        const char* what;
        std::vector<Picture> pictures;     // in decode order
        std::vector<std::int64_t> stamps;  // in decode order
        std::size_t knownBeforeTheEnd;
    };
    const Row rows[] = {
        {"two B-frames between anchors",
         {{'I', -1, 0},
          {'P', -1, 1},
          {'B', -1, 2},
          {'B', -1, 3},
          {'P', -1, 4},
          {'B', -1, 5},
          {'B', -1, 6}},
         {0, 3, 1, 2, 6, 4, 5},
         4},
        {"open group read from its keyframe: the leading B-frames come first",
         {{'I', -1, 10}, {'B', -1, 11}, {'B', -1, 12}, {'P', -1, 13}, {'B', -1, 14}},
         {12, 10, 11, 14, 13},
         3},
        {"B-frames that others refer to, ordered by their counts; an IDR starts again",
         {{'K', 0, 0},
          {'P', 8, 10},
          {'B', 4, 20},
          {'B', 2, 30},
          {'B', 6, 40},
          {'P', 14, 50},
          {'B', 10, 60},
          {'B', 12, 70},
          {'K', 0, 80},
          {'P', 2, 90}},
         {0, 40, 20, 10, 30, 70, 50, 60, 80, 90},
         8},
        {"open group: the keyframe goes on counting and its leading B-frames precede it",
         {{'K', 0, 0},
          {'P', 8, 1},
          {'B', 4, 2},
          {'B', 2, 3},
          {'B', 6, 4},
          {'I', 16, 5},
          {'B', 12, 6},
          {'B', 10, 7},
          {'B', 14, 8},
          {'P', 22, 9}},
         {0, 4, 2, 1, 3, 8, 6, 5, 7, 9},
         0},
        {"stamps missing before the first and after the last: one frame step apart",
         {{'I', -1, -1}, {'P', -1, -1}, {'P', -1, 7200}, {'P', -1, -1}},
         {0, 3600, 7200, 10800},
         3},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        PresentationOrder order(3600);
        std::vector<std::int64_t> stamps;
        for (const Picture& picture : row.pictures) {
            order.push(pictureOf(picture));
            while (const auto stamp = order.next()) {
                stamps.push_back(*stamp);
            }
        }
        EXPECT_EQ(stamps.size(), row.knownBeforeTheEnd);
        order.finish();
        while (const auto stamp = order.next()) {
            stamps.push_back(*stamp);
        }
        EXPECT_EQ(stamps, row.stamps);

        // After a reset the same pictures give the same stamps.
        order.reset();
        std::vector<std::int64_t> again;
        for (const Picture& picture : row.pictures) {
            order.push(pictureOf(picture));
        }
        order.finish();
        while (const auto stamp = order.next()) {
            again.push_back(*stamp);
        }
        EXPECT_EQ(again, row.stamps);
    }
}

// A group that never ends (one IDR picture, then only counts that grow) hands out each stamp once
// the reorder window has passed it, not at the end of the stream.
TEST(PresentationOrder, LongGroupsAreResolvedWithinTheReorderWindow)
{
    PresentationOrder order(1);
    std::vector<std::int64_t> stamps;
    const int count = 100;
    for (int i = 0; i < count; ++i) {
        order.push(pictureOf({i == 0 ? 'K' : 'P', 2 * i, i}));
        while (const auto stamp = order.next()) {
            stamps.push_back(*stamp);
        }
    }
    ASSERT_EQ(stamps.size(), count - PresentationOrder::kReorderWindow);
    for (std::size_t i = 0; i < stamps.size(); ++i) {
        EXPECT_EQ(stamps[i], static_cast<std::int64_t>(i));
    }
}

}  // namespace
}  // namespace kestrin::media_ffmpeg::detail
