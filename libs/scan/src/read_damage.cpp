#include <kestrin/scan/read_damage.hpp>

#include <algorithm>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

namespace kestrin::scan {

struct detail::ReadLedgerState
{
    mutable std::mutex mutex;
    // Everything below is guarded by mutex.
    std::set<core::MediaTime> damagedTimes;
    std::int64_t untimedDamage = 0;
    std::optional<core::MediaTime> declaredDuration;
    std::optional<core::MediaTime> coveredUntil;
};

ReadLedger::ReadLedger()
    : state_(std::make_unique<detail::ReadLedgerState>())
{}

ReadLedger::~ReadLedger() = default;

core::ReadDamage ReadLedger::damage() const
{
    const std::scoped_lock lock(state_->mutex);
    return core::ReadDamage{
        .damagedFrames =
            static_cast<std::int64_t>(state_->damagedTimes.size()) + state_->untimedDamage,
        .declaredDuration = state_->declaredDuration,
        .coveredUntil = state_->coveredUntil,
    };
}

void ReadLedger::noteTrack(const std::optional<core::MediaTime>& declaredDuration)
{
    const std::scoped_lock lock(state_->mutex);
    state_->declaredDuration = declaredDuration;
}

void ReadLedger::noteDamagedFrame(const core::MediaTime& time)
{
    const std::scoped_lock lock(state_->mutex);
    if (time.isNumeric()) {
        state_->damagedTimes.insert(time);
    } else {
        ++state_->untimedDamage;
    }
}

void ReadLedger::noteShortRead(const core::MediaTime& reachedUntil)
{
    const std::scoped_lock lock(state_->mutex);
    if (!state_->coveredUntil || reachedUntil < *state_->coveredUntil) {
        state_->coveredUntil = reachedUntil;
    }
}

namespace {

// A frame reader passing on everything its inner reader does, and telling the ledger what the
// read met: damaged frames as they come, refused samples and a short read when it ends.
class WatchedReader final : public media::FrameReader
{
public:
    WatchedReader(std::unique_ptr<media::FrameReader> inner,
                  const media::Track& track,
                  const media::FrameReaderSettings& settings,
                  std::shared_ptr<ReadLedger> ledger)
        : inner_(std::move(inner))
        , ledger_(std::move(ledger))
    {
        const std::optional<core::MediaTime> declared = track.declaredDuration();
        ledger_->noteTrack(declared);
        if (declared && declared->isNumeric()) {
            expectedEnd_ =
                settings.timeRange ? std::min(settings.timeRange->end(), *declared) : *declared;
        }
        if (settings.timeRange) {
            reached_ = settings.timeRange->start;
        }
        const core::Expected<core::MediaTime> frame = track.minFrameDuration();
        frameDuration_ = frame && frame->isNumeric() && *frame > core::MediaTime::zero()
                             ? *frame
                             : core::MediaTime::make(1, 25);
    }

    WatchedReader(const WatchedReader&) = delete;
    WatchedReader& operator=(const WatchedReader&) = delete;
    WatchedReader(WatchedReader&&) = delete;
    WatchedReader& operator=(WatchedReader&&) = delete;

    ~WatchedReader() override
    {
        for (const core::MediaTime& time : inner_->refusedSampleTimes()) {
            ledger_->noteDamagedFrame(time);
        }
    }

    bool startReading() override
    {
        const bool started = inner_->startReading();
        noteEnd();
        return started;
    }

    [[nodiscard]] media::ReaderStatus status() const override { return inner_->status(); }
    [[nodiscard]] std::optional<core::Error> error() const override { return inner_->error(); }
    [[nodiscard]] std::vector<core::MediaTime> refusedSampleTimes() const override
    {
        return inner_->refusedSampleTimes();
    }

    std::optional<media::LumaFrame> nextFrame() override
    {
        std::optional<media::LumaFrame> frame = inner_->nextFrame();
        if (!frame) {
            noteEnd();
            return frame;
        }
        if (frame->isDamaged) {
            ledger_->noteDamagedFrame(frame->presentationTime);
        }
        const core::MediaTime duration =
            frame->duration.isNumeric() && frame->duration > core::MediaTime::zero()
                ? frame->duration
                : frameDuration_;
        const core::MediaTime end = frame->presentationTime + duration;
        if (end.isNumeric() && end > reached_) {
            reached_ = end;
        }
        return frame;
    }

    void cancelReading() override { inner_->cancelReading(); }

private:
    // Once the read has ended by itself: short when it stopped more than two frames before the
    // point it should have reached.
    void noteEnd()
    {
        const media::ReaderStatus status = inner_->status();
        if (isEndNoted_
            || (status != media::ReaderStatus::completed
                && status != media::ReaderStatus::failed)) {
            return;
        }
        isEndNoted_ = true;
        if (expectedEnd_ && reached_ + frameDuration_ + frameDuration_ < *expectedEnd_) {
            ledger_->noteShortRead(reached_);
        }
    }

    std::unique_ptr<media::FrameReader> inner_;
    std::shared_ptr<ReadLedger> ledger_;
    std::optional<core::MediaTime> expectedEnd_;
    core::MediaTime frameDuration_;
    core::MediaTime reached_ = core::MediaTime::zero();
    bool isEndNoted_ = false;
};

class WatchedAsset final : public media::Asset
{
public:
    WatchedAsset(media::AssetPointer inner, std::shared_ptr<ReadLedger> ledger)
        : inner_(std::move(inner))
        , ledger_(std::move(ledger))
    {}

    [[nodiscard]] core::Expected<core::MediaTime> duration() const override
    {
        return inner_->duration();
    }
    [[nodiscard]] core::Expected<std::vector<media::TrackPointer>> tracks() const override
    {
        return inner_->tracks();
    }
    [[nodiscard]] core::Expected<std::unique_ptr<media::FrameReader>> makeFrameReader(
        const media::Track& track,
        const media::FrameReaderSettings& settings,
        std::stop_token stopToken) const override
    {
        auto made = inner_->makeFrameReader(track, settings, std::move(stopToken));
        if (!made || !*made) {
            return made;
        }
        std::unique_ptr<media::FrameReader> watched =
            std::make_unique<WatchedReader>(std::move(*made), track, settings, ledger_);
        return watched;
    }

private:
    media::AssetPointer inner_;
    std::shared_ptr<ReadLedger> ledger_;
};

}  // namespace

media::AssetPointer watchReads(media::AssetPointer asset, std::shared_ptr<ReadLedger> ledger)
{
    return std::make_shared<WatchedAsset>(std::move(asset), std::move(ledger));
}

}  // namespace kestrin::scan
