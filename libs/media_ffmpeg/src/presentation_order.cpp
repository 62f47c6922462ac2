#include "presentation_order.hpp"

#include <algorithm>

namespace kestrin::media_ffmpeg::detail {

PresentationOrder::PresentationOrder(std::int64_t frameStep)
    : frameStep_(std::max<std::int64_t>(frameStep, 1))
{}

void PresentationOrder::push(const PictureInOrder& picture)
{
    const std::size_t index = decodeStamps_.size();
    std::int64_t stamp = 0;
    if (picture.decodeStamp) {
        stamp = *picture.decodeStamp;
        if (!hasKnownStamp_) {
            // Pictures before the first stamp lie one frame apart before it.
            for (std::size_t i = 0; i < index; ++i) {
                decodeStamps_[i] = stamp - static_cast<std::int64_t>(index - i) * frameStep_;
            }
        }
        hasKnownStamp_ = true;
    } else if (index > 0) {
        stamp = decodeStamps_.back() + frameStep_;
    }
    decodeStamps_.push_back(stamp);
    positions_.emplace_back();
    orderCounts_.push_back(picture.pictureOrderCount);

    if (picture.pictureOrderCount) {
        if (picture.startsClosedGroup && index > groupStart_) {
            closeGroup(index);
            groupStart_ = index;
        }
        if (index >= groupStart_ + kReorderWindow) {
            placeInGroup(index - kReorderWindow, index + 1);
        }
        return;
    }
    if (picture.isBidirectional) {
        positions_[index] = nextPosition_++;
        return;
    }
    if (pendingAnchor_) {
        positions_[*pendingAnchor_] = nextPosition_++;
    }
    pendingAnchor_ = index;
}

void PresentationOrder::finish()
{
    closeGroup(decodeStamps_.size());
    if (pendingAnchor_) {
        positions_[*pendingAnchor_] = nextPosition_++;
        pendingAnchor_.reset();
    }
    isFinished_ = true;
}

void PresentationOrder::reset()
{
    decodeStamps_.clear();
    positions_.clear();
    orderCounts_.clear();
    nextOut_ = 0;
    isFinished_ = false;
    hasKnownStamp_ = false;
    groupStart_ = 0;
    pendingAnchor_.reset();
    nextPosition_ = 0;
}

std::optional<std::int64_t> PresentationOrder::next()
{
    if (nextOut_ >= positions_.size() || !positions_[nextOut_]) {
        return std::nullopt;
    }
    const std::size_t position = *positions_[nextOut_];
    // Until the first stamp arrives, the stamps are not known (MPEG streams stamp only some
    // pictures); at the end of the stream, pictures without any count from 0.
    if (position >= decodeStamps_.size() || (!hasKnownStamp_ && !isFinished_)) {
        return std::nullopt;
    }
    ++nextOut_;
    return decodeStamps_[position];
}

void PresentationOrder::closeGroup(std::size_t end)
{
    for (std::size_t i = groupStart_; i < end; ++i) {
        if (orderCounts_[i]) {
            placeInGroup(i, end);
        }
    }
}

// Gives picture `index` of the open group its position: after every picture of the group with a
// smaller order count (equal counts in decode order). Pictures more than kReorderWindow before it
// in decode order are taken to be shown before it, so that a long group costs no more than a
// short one; those up to `end` (exclusive) are compared.
void PresentationOrder::placeInGroup(std::size_t index, std::size_t end)
{
    if (positions_[index]) {
        return;
    }
    const int count = *orderCounts_[index];
    const std::size_t from =
        std::max(groupStart_, index >= kReorderWindow ? index - kReorderWindow : 0);
    std::size_t rank = from - groupStart_;
    for (std::size_t j = from; j < end; ++j) {
        if (j != index && orderCounts_[j]
            && (*orderCounts_[j] < count || (*orderCounts_[j] == count && j < index))) {
            ++rank;
        }
    }
    positions_[index] = groupStart_ + rank;
}

PictureParser::PictureParser(const AVCodecParameters& parameters)
    : context_(avcodec_alloc_context3(nullptr))
    , parser_(av_parser_init(static_cast<int>(parameters.codec_id)))
    , hasOrderCounts_(parameters.codec_id == AV_CODEC_ID_H264
                      || parameters.codec_id == AV_CODEC_ID_HEVC)
{
    if (context_ != nullptr && avcodec_parameters_to_context(context_, &parameters) < 0) {
        avcodec_free_context(&context_);
    }
    if (parser_ != nullptr) {
        parser_->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    }
}

PictureParser::~PictureParser()
{
    if (parser_ != nullptr) {
        av_parser_close(parser_);
    }
    avcodec_free_context(&context_);
}

PictureInOrder PictureParser::describe(const AVPacket& packet)
{
    PictureInOrder picture;
    if (packet.dts != AV_NOPTS_VALUE) {
        picture.decodeStamp = packet.dts;
    }
    if (parser_ == nullptr || context_ == nullptr || packet.size <= 0) {
        return picture;
    }
    std::uint8_t* output = nullptr;
    int outputSize = 0;
    av_parser_parse2(parser_,
                     context_,
                     &output,
                     &outputSize,
                     packet.data,
                     packet.size,
                     AV_NOPTS_VALUE,
                     AV_NOPTS_VALUE,
                     packet.pos);
    picture.isBidirectional = parser_->pict_type == AV_PICTURE_TYPE_B;
    if (hasOrderCounts_) {
        picture.pictureOrderCount = parser_->output_picture_number;
        // An IDR picture starts its order counts at 0; an open group's keyframe goes on counting.
        picture.startsClosedGroup =
            (packet.flags & AV_PKT_FLAG_KEY) != 0 && parser_->output_picture_number == 0;
    }
    return picture;
}

}  // namespace kestrin::media_ffmpeg::detail
