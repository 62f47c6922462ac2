#include <kestrin/media_testing/synthetic_asset.hpp>

#include <algorithm>
#include <atomic>
#include <numeric>
#include <utility>

namespace kestrin::media_testing {

using core::Error;
using core::Expected;
using core::MediaTime;
using media::FrameReader;
using media::FrameReaderSettings;
using media::LumaFrame;
using media::ReaderStatus;

// Counts shared by an asset and the readers it made; readers may outlive the asset.
struct detail::SyntheticCounters
{
    std::atomic<std::int64_t> readersMade{0};
    std::atomic<std::int64_t> framesDelivered{0};
};

namespace {

// Decode-order positions of the samples, sorted by presentation time (ties keep decode order).
std::vector<std::size_t> presentationOrder(const std::vector<SyntheticSample>& samples)
{
    std::vector<std::size_t> order(samples.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&samples](std::size_t a, std::size_t b) {
        return samples[a].presentationTime < samples[b].presentationTime;
    });
    return order;
}

class SyntheticTrackHandle : public media::Track
{
public:
    SyntheticTrackHandle(int index, SyntheticTrack track)
        : index_(index)
        , track_(std::move(track))
        , presentationOrder_(presentationOrder(track_.samples))
    {}

    [[nodiscard]] int trackIndex() const override { return index_; }
    [[nodiscard]] media::MediaType mediaType() const override { return track_.mediaType; }
    [[nodiscard]] Expected<float> nominalFrameRate() const override
    {
        return track_.nominalFrameRate;
    }
    [[nodiscard]] Expected<MediaTime> minFrameDuration() const override
    {
        return track_.minFrameDuration;
    }
    [[nodiscard]] std::optional<MediaTime> declaredDuration() const override
    {
        return track_.declaredDuration;
    }
    [[nodiscard]] Expected<std::vector<media::FormatDescription>> formatDescriptions()
        const override
    {
        return track_.formatDescriptions;
    }
    [[nodiscard]] Expected<bool> canProvideSampleCursors() const override
    {
        return track_.canProvideSampleCursors;
    }
    [[nodiscard]] std::unique_ptr<media::SampleCursor> makeSampleCursorAtFirstSampleInDecodeOrder(
        std::stop_token stopToken) const override;

    [[nodiscard]] const SyntheticTrack& script() const { return track_; }
    [[nodiscard]] const std::vector<std::size_t>& inPresentationOrder() const
    {
        return presentationOrder_;
    }

private:
    int index_;
    SyntheticTrack track_;
    std::vector<std::size_t> presentationOrder_;
};

class SyntheticCursor : public media::SampleCursor
{
public:
    explicit SyntheticCursor(const SyntheticTrackHandle& track)
        : samples_(track.script().samples)
        , onStep_(track.script().onCursorStep)
        , order_(track.inPresentationOrder())
        , rank_(samples_.size())
    {
        for (std::size_t rank = 0; rank < order_.size(); ++rank) {
            rank_[order_[rank]] = rank;
        }
    }

    [[nodiscard]] bool currentSampleIsFullSync() const override
    {
        return samples_[position_].isSync;
    }
    [[nodiscard]] MediaTime presentationTimeStamp() const override
    {
        return samples_[position_].presentationTime;
    }
    std::int64_t stepInDecodeOrder(std::int64_t count) override
    {
        const std::int64_t moved = clampStep(static_cast<std::int64_t>(position_), count);
        position_ = static_cast<std::size_t>(static_cast<std::int64_t>(position_) + moved);
        reportStep(moved);
        return moved;
    }
    std::int64_t stepInPresentationOrder(std::int64_t count) override
    {
        const auto rank = static_cast<std::int64_t>(rank_[position_]);
        const std::int64_t moved = clampStep(rank, count);
        position_ = order_[static_cast<std::size_t>(rank + moved)];
        reportStep(moved);
        return moved;
    }

private:
    void reportStep(std::int64_t moved) const
    {
        if (moved != 0 && onStep_) {
            onStep_(static_cast<std::int64_t>(position_));
        }
    }

    [[nodiscard]] std::int64_t clampStep(std::int64_t from, std::int64_t count) const
    {
        const auto last = static_cast<std::int64_t>(samples_.size()) - 1;
        return std::clamp(from + count, std::int64_t{0}, last) - from;
    }

    // Copies, so that the cursor outlives its asset as the interface promises.
    std::vector<SyntheticSample> samples_;
    std::function<void(std::int64_t)> onStep_;
    std::vector<std::size_t> order_;
    std::vector<std::size_t> rank_;
    std::size_t position_ = 0;
};

std::unique_ptr<media::SampleCursor>
SyntheticTrackHandle::makeSampleCursorAtFirstSampleInDecodeOrder(
    std::stop_token /*stopToken*/) const
{
    if (track_.samples.empty() || !track_.canProvideSampleCursors.hasValue()
        || !*track_.canProvideSampleCursors) {
        return nullptr;
    }
    return std::make_unique<SyntheticCursor>(*this);
}

class SyntheticReader : public FrameReader
{
public:
    SyntheticReader(const SyntheticTrackHandle& track,
                    FrameReaderSettings settings,
                    std::stop_token stopToken,
                    std::shared_ptr<detail::SyntheticCounters> counters)
        : settings_(std::move(settings))
        , faults_(track.script().faults)
        , stopToken_(std::move(stopToken))
        , counters_(std::move(counters))
        , plane_(static_cast<std::size_t>(settings_.width)
                 * static_cast<std::size_t>(settings_.height))
    {
        const auto& samples = track.script().samples;
        const auto& order = track.inPresentationOrder();
        const MediaTime fallbackDuration = track.script().minFrameDuration.hasValue()
                                               ? *track.script().minFrameDuration
                                               : MediaTime::make(1, 25);
        const auto endOf = [&](std::size_t rank) {
            return rank + 1 < order.size()
                       ? samples[order[rank + 1]].presentationTime
                       : samples[order[rank]].presentationTime + fallbackDuration;
        };
        for (std::size_t rank = 0; rank < order.size(); ++rank) {
            const SyntheticSample& sample = samples[order[rank]];
            if (overlapsRange(sample.presentationTime, endOf(rank))) {
                if (frames_.empty() && settings_.deliversLeadIn) {
                    addLeadIn(samples, order, rank, endOf);
                }
                frames_.push_back(sample);
                durations_.push_back(endOf(rank) - sample.presentationTime);
                leadIn_.push_back(false);
            }
        }
    }

    bool startReading() override
    {
        if (status_ != ReaderStatus::notStarted) {
            return false;
        }
        if (faults_.refuseStart) {
            status_ = ReaderStatus::failed;
            error_ = faults_.startError;
            return false;
        }
        status_ = ReaderStatus::reading;
        return true;
    }

    [[nodiscard]] ReaderStatus status() const override { return status_; }
    [[nodiscard]] std::optional<Error> error() const override { return error_; }
    [[nodiscard]] std::vector<MediaTime> refusedSampleTimes() const override { return {}; }

    std::optional<LumaFrame> nextFrame() override
    {
        if (status_ != ReaderStatus::reading) {
            return std::nullopt;
        }
        if (stopToken_.stop_requested()) {
            status_ = ReaderStatus::cancelled;
            return std::nullopt;
        }
        if (faults_.failAfterFrames && delivered_ >= *faults_.failAfterFrames) {
            status_ = ReaderStatus::failed;
            error_ = faults_.readError;
            return std::nullopt;
        }
        if (next_ >= frames_.size()) {
            status_ = ReaderStatus::completed;
            return std::nullopt;
        }
        const MediaTime duration = durations_[next_];
        const SyntheticSample& sample = frames_[next_++];
        ++delivered_;
        counters_->framesDelivered.fetch_add(1, std::memory_order_relaxed);
        LumaFrame frame;
        frame.presentationTime = sample.presentationTime;
        frame.duration = duration;
        frame.width = settings_.width;
        frame.height = settings_.height;
        frame.bytesPerRow = settings_.width;
        frame.isLeadIn = leadIn_[next_ - 1];
        frame.isDamaged = sample.isDamaged;
        if (sample.picture) {
            render(*sample.picture);
            frame.data = plane_.data();
        }
        return frame;
    }

    void cancelReading() override
    {
        if (status_ == ReaderStatus::notStarted || status_ == ReaderStatus::reading) {
            status_ = ReaderStatus::cancelled;
        }
    }

private:
    // The reference frames from the last sync sample shown at or before presentation rank
    // `first` up to it, as a decoder reaching `first` from a seek would decode them.
    template <typename EndOf>
    void addLeadIn(const std::vector<SyntheticSample>& samples,
                   const std::vector<std::size_t>& order,
                   std::size_t first,
                   const EndOf& endOf)
    {
        std::size_t sync = first;
        while (sync > 0 && !samples[order[sync]].isSync) {
            --sync;
        }
        for (std::size_t rank = sync; rank < first; ++rank) {
            const SyntheticSample& sample = samples[order[rank]];
            if (sample.isReference) {
                frames_.push_back(sample);
                durations_.push_back(endOf(rank) - sample.presentationTime);
                leadIn_.push_back(true);
            }
        }
    }

    [[nodiscard]] bool overlapsRange(const MediaTime& start, const MediaTime& end) const
    {
        if (!settings_.timeRange) {
            return true;
        }
        const MediaTime rangeStart = settings_.timeRange->start;
        const MediaTime rangeEnd = settings_.timeRange->end();
        return start < rangeEnd && end > rangeStart;
    }

    void render(const Picture& picture)
    {
        const int width = settings_.width;
        const int height = settings_.height;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const double u = (x + 0.5) / width;
                const double v = (y + 0.5) / height;
                std::uint8_t luma = picture(u, v);
                if (settings_.range == media::LumaRange::video) {
                    luma = media::videoRangeLuma(luma);
                }
                plane_[static_cast<std::size_t>(y) * static_cast<std::size_t>(width)
                       + static_cast<std::size_t>(x)] = luma;
            }
        }
    }

    FrameReaderSettings settings_;
    ReaderFaults faults_;
    std::stop_token stopToken_;
    std::shared_ptr<detail::SyntheticCounters> counters_;
    // In presentation order: the lead-in asked for, then the frames inside the range.
    std::vector<SyntheticSample> frames_;
    std::vector<MediaTime> durations_;  // how long each of frames_ is shown
    std::vector<bool> leadIn_;          // whether each of frames_ is lead-in
    std::vector<std::uint8_t> plane_;
    std::size_t next_ = 0;
    std::int64_t delivered_ = 0;
    ReaderStatus status_ = ReaderStatus::notStarted;
    std::optional<Error> error_;
};

}  // namespace

Picture flatPicture(std::uint8_t luma)
{
    return [luma](double, double) {
        return luma;
    };
}

Picture barsPicture(int bars, std::uint8_t dark, std::uint8_t light)
{
    return [bars, dark, light](double x, double) {
        return (static_cast<int>(x * bars) % 2 == 0) ? dark : light;
    };
}

SyntheticTrack makeVideoTrack(int framesPerSecond,
                              std::int64_t count,
                              const std::function<Picture(std::int64_t)>& picture,
                              const std::function<bool(std::int64_t)>& isSync)
{
    SyntheticTrack track;
    track.nominalFrameRate = static_cast<float>(framesPerSecond);
    track.minFrameDuration = MediaTime::make(1, framesPerSecond);
    track.formatDescriptions =
        std::vector<media::FormatDescription>{{media::MediaType::video, media::fourCC("avc1"), 0}};
    for (std::int64_t i = 0; i < count; ++i) {
        track.samples.push_back(
            SyntheticSample{MediaTime::make(i, framesPerSecond), isSync(i), picture(i)});
    }
    return track;
}

SyntheticAsset::SyntheticAsset(Expected<MediaTime> duration, std::vector<SyntheticTrack> tracks)
    : duration_(std::move(duration))
    , counters_(std::make_shared<detail::SyntheticCounters>())
{
    int index = 0;
    for (SyntheticTrack& track : tracks) {
        tracks_.push_back(std::make_shared<SyntheticTrackHandle>(index++, std::move(track)));
    }
}

Expected<MediaTime> SyntheticAsset::duration() const
{
    return duration_;
}

Expected<std::vector<media::TrackPointer>> SyntheticAsset::tracks() const
{
    if (trackLoadError_) {
        return *trackLoadError_;
    }
    return tracks_;
}

Expected<std::unique_ptr<FrameReader>> SyntheticAsset::makeFrameReader(
    const media::Track& track, const FrameReaderSettings& settings, std::stop_token stopToken) const
{
    const auto* handle = dynamic_cast<const SyntheticTrackHandle*>(&track);
    if (handle == nullptr) {
        return Error{"SyntheticAsset", -1, "The track does not belong to a synthetic asset."};
    }
    if (handle->script().faults.makeError) {
        return *handle->script().faults.makeError;
    }
    counters_->readersMade.fetch_add(1, std::memory_order_relaxed);
    return std::unique_ptr<FrameReader>(
        std::make_unique<SyntheticReader>(*handle, settings, std::move(stopToken), counters_));
}

SyntheticAssetStatistics SyntheticAsset::statistics() const
{
    return SyntheticAssetStatistics{counters_->readersMade.load(),
                                    counters_->framesDelivered.load()};
}

void SyntheticAssetOpener::add(const std::filesystem::path& path, media::AssetPointer asset)
{
    assets_[path] = std::move(asset);
}

Expected<media::AssetPointer> SyntheticAssetOpener::openAsset(const std::filesystem::path& path,
                                                              std::stop_token /*stopToken*/) const
{
    const auto found = assets_.find(path);
    if (found == assets_.end()) {
        return Error{"POSIX", 2, "The file “" + path.string() + "” does not exist."};
    }
    return found->second;
}

}  // namespace kestrin::media_testing
