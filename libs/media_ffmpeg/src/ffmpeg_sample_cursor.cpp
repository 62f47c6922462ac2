#include "ffmpeg_support.hpp"
#include "presentation_order.hpp"

#include <algorithm>
#include <deque>
#include <limits>
#include <optional>
#include <utility>

namespace kestrin::media_ffmpeg::detail {

namespace {

// Where a stream gives no decode times, a sample is taken to be next in presentation order once
// this many later samples have been read without one presented before it. Far more than any
// codec's reordering depth (H.264 allows 16 frames).
constexpr std::size_t kReorderWindow = 32;

// Samples come from the container's index (all present at once, no I/O) or from demuxed packets
// (read on demand). Either way the cursor sees a decode-order list that grows until it ends.
class SampleSupply
{
public:
    SampleSupply(std::shared_ptr<const TrackSource> source, std::stop_token stopToken)
        : source_(std::move(source))
    {
        interrupt_.stopToken = std::move(stopToken);
        if (source_->index) {
            return;
        }
        auto opened = openInput(source_->path, interrupt_, false);
        if (!opened || source_->streamIndex >= static_cast<int>((*opened)->nb_streams)) {
            return;
        }
        format_ = std::move(*opened);
        for (unsigned int i = 0; i < format_->nb_streams; ++i) {
            format_->streams[i]->discard =
                static_cast<int>(i) == source_->streamIndex ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        }
        packet_.reset(av_packet_alloc());
        if (source_->hasDecodeOrderOnly) {
            parser_.emplace(*format_->streams[source_->streamIndex]->codecpar);
            order_.emplace(source_->timing.frameStepInStamps());
        }
    }

    /// Whether the presentation stamps come from the pictures (PresentationOrder): then a
    /// sample may be shown before samples decoded ahead of it.
    [[nodiscard]] bool hasDerivedStamps() const { return order_.has_value(); }

    /// The samples read so far, in decode order.
    [[nodiscard]] const std::vector<SampleEntry>& samples() const
    {
        return source_->index ? *source_->index : read_;
    }
    [[nodiscard]] std::size_t loadedCount() const
    {
        return source_->index ? indexLoaded_ : read_.size();
    }
    [[nodiscard]] bool isExhausted() const { return isExhausted_; }

    /// Makes one more sample available; false at the end of the track (or of what could be read).
    bool loadOne()
    {
        if (isExhausted_) {
            return false;
        }
        if (source_->index) {
            if (indexLoaded_ < source_->index->size()) {
                ++indexLoaded_;
                return true;
            }
            isExhausted_ = true;
            return false;
        }
        if (!format_ || !packet_) {
            isExhausted_ = true;
            return false;
        }
        for (;;) {
            if (order_ && !unstamped_.empty()) {
                if (const auto stamp = order_->next()) {
                    read_.push_back(unstamped_.front());
                    read_.back().presentationStamp = *stamp;
                    unstamped_.pop_front();
                    return true;
                }
            }
            if (isInputDone_) {
                if (order_ && !isOrderFinished_) {
                    order_->finish();
                    isOrderFinished_ = true;
                    continue;
                }
                isExhausted_ = true;
                return false;
            }
            // A stop request, a read error and the end of the file all end the track here.
            if (av_read_frame(format_.get(), packet_.get()) < 0) {
                isInputDone_ = true;
                continue;
            }
            const bool isOurs = packet_->stream_index == source_->streamIndex;
            if (isOurs) {
                const SampleEntry entry{
                    packet_->pts, packet_->dts, (packet_->flags & AV_PKT_FLAG_KEY) != 0};
                if (order_) {
                    order_->push(parser_->describe(*packet_));
                    unstamped_.push_back(entry);
                } else {
                    read_.push_back(entry);
                }
            }
            av_packet_unref(packet_.get());
            if (isOurs && !order_) {
                return true;
            }
        }
    }

private:
    std::shared_ptr<const TrackSource> source_;
    Interrupt interrupt_;  // must outlive format_
    FormatContextPointer format_;
    PacketPointer packet_;
    std::vector<SampleEntry> read_;
    std::size_t indexLoaded_ = 0;
    bool isExhausted_ = false;
    bool isInputDone_ = false;
    // Only where the container keeps the decode order alone: samples read whose presentation
    // stamps are not known yet, in decode order.
    std::optional<PictureParser> parser_;
    std::optional<PresentationOrder> order_;
    std::deque<SampleEntry> unstamped_;
    bool isOrderFinished_ = false;
};

class FFmpegSampleCursor final : public media::SampleCursor
{
public:
    FFmpegSampleCursor(std::shared_ptr<const TrackSource> source, std::stop_token stopToken)
        : timing_(source->timing)
        , supply_(std::move(source), std::move(stopToken))
    {}

    /// Loads the first sample; false when the track has none.
    bool start() { return load(); }

    [[nodiscard]] bool currentSampleIsFullSync() const override { return current().isSync; }

    [[nodiscard]] core::MediaTime presentationTimeStamp() const override
    {
        return timing_.timeOf(current().presentationStamp);
    }

    std::int64_t stepInDecodeOrder(std::int64_t count) override
    {
        std::int64_t moved = 0;
        if (count > 0) {
            while (moved < count) {
                if (position_ + 1 >= supply_.loadedCount() && !load()) {
                    break;
                }
                ++position_;
                ++moved;
            }
        } else {
            const auto back = std::min(static_cast<std::size_t>(-count), position_);
            position_ -= back;
            moved = -static_cast<std::int64_t>(back);
        }
        return moved;
    }

    std::int64_t stepInPresentationOrder(std::int64_t count) override
    {
        std::int64_t moved = 0;
        while (moved != count) {
            const bool isForward = count > 0;
            if (!(isForward ? stepForwardInPresentationOrder() : stepBackInPresentationOrder())) {
                break;
            }
            moved += isForward ? 1 : -1;
        }
        return moved;
    }

private:
    // A sample's place in presentation order: its presentation stamp, ties in decode order.
    using Key = std::pair<std::int64_t, std::size_t>;

    [[nodiscard]] const SampleEntry& current() const { return supply_.samples()[position_]; }

    bool load()
    {
        if (!supply_.loadOne()) {
            return false;
        }
        const std::size_t index = supply_.loadedCount() - 1;
        const SampleEntry& entry = supply_.samples()[index];
        // Stamps taken from the pictures are not bounded by the decode stamps read so far; the
        // reorder window bounds them instead.
        if (entry.decodeStamp != AV_NOPTS_VALUE && !supply_.hasDerivedStamps()) {
            latestDecodeStamp_ = std::max(latestDecodeStamp_, entry.decodeStamp);
        }
        std::int64_t stamp = entry.presentationStamp;
        if (stamp == AV_NOPTS_VALUE) {
            // Without a presentation time the sample is shown where it is decoded.
            stamp = entry.decodeStamp != AV_NOPTS_VALUE ? entry.decodeStamp : lastKeyStamp_;
        }
        lastKeyStamp_ = stamp;
        const Key key{stamp, index};
        keys_.insert(std::upper_bound(keys_.begin(), keys_.end(), key), key);
        keyOfSample_.push_back(stamp);
        return true;
    }

    // Whether no sample still unread can come before `stamp` in presentation order: a sample is
    // never presented before it is decoded, and decode times only grow.
    [[nodiscard]] bool nothingUnreadPrecedes(std::int64_t stamp, std::size_t sampleIndex) const
    {
        if (supply_.isExhausted()) {
            return true;
        }
        if (latestDecodeStamp_ != std::numeric_limits<std::int64_t>::min()) {
            return latestDecodeStamp_ >= stamp;
        }
        return supply_.loadedCount() > sampleIndex + kReorderWindow;
    }

    [[nodiscard]] Key currentKey() const { return Key{keyOfSample_[position_], position_}; }

    bool stepForwardInPresentationOrder()
    {
        const Key from = currentKey();
        for (;;) {
            const auto next = std::upper_bound(keys_.begin(), keys_.end(), from);
            if (next != keys_.end() && nothingUnreadPrecedes(next->first, next->second)) {
                position_ = next->second;
                return true;
            }
            if (!load()) {
                if (next == keys_.end()) {
                    return false;
                }
                position_ = next->second;
                return true;
            }
        }
    }

    bool stepBackInPresentationOrder()
    {
        const Key from = currentKey();
        while (!nothingUnreadPrecedes(from.first, from.second) && load()) {
        }
        const auto at = std::lower_bound(keys_.begin(), keys_.end(), from);
        if (at == keys_.begin()) {
            return false;
        }
        position_ = std::prev(at)->second;
        return true;
    }

    TrackTiming timing_;
    SampleSupply supply_;
    std::size_t position_ = 0;               // decode-order index of the current sample
    std::vector<Key> keys_;                  // every loaded sample, in presentation order
    std::vector<std::int64_t> keyOfSample_;  // presentation-order stamp by decode-order index
    std::int64_t latestDecodeStamp_ = std::numeric_limits<std::int64_t>::min();
    std::int64_t lastKeyStamp_ = 0;
};

}  // namespace

std::unique_ptr<media::SampleCursor> makeSampleCursor(std::shared_ptr<const TrackSource> source,
                                                      std::stop_token stopToken)
{
    auto cursor = std::make_unique<FFmpegSampleCursor>(std::move(source), std::move(stopToken));
    if (!cursor->start()) {
        return nullptr;
    }
    return cursor;
}

}  // namespace kestrin::media_ffmpeg::detail
