#pragma once

#include <kestrin/core/media_time.hpp>
#include <kestrin/media/asset.hpp>

#include <cstdint>
#include <memory>
#include <optional>

namespace kestrin::scan {

/// What a scan could not read of its video: the facts a user needs to know that its markers may
/// not be all the cuts there are.
struct ReadDamage
{
    /// Frames the decoder marked as damaged (errors concealed, a reference missing) or refused
    /// outright, each counted once however often the scan decoded it. A lower bound: a decoder
    /// working on several frames at once (H.264's frame threads) does not always mark a picture
    /// it concealed errors in, and a keyframe scan sees only the frames it decodes.
    std::int64_t damagedFrames = 0;
    /// How long the container says the track lasts; absent when it does not say.
    std::optional<core::MediaTime> declaredDuration;
    /// Set when the scan found no frame to read from some point on, although the declared
    /// duration goes further (a truncated file, a damaged end): the end of the last frame it could
    /// read there. Measured on the track's timeline, where its first frame starts at 0.
    std::optional<core::MediaTime> coveredUntil;

    /// Nothing damaged and nothing missing.
    [[nodiscard]] bool isClean() const { return damagedFrames == 0 && !coveredUntil; }

    friend bool operator==(const ReadDamage&, const ReadDamage&) = default;
};

namespace detail {
struct ReadLedgerState;
}  // namespace detail

/// Collects what the frame readers of one scan met: every picture marked damaged, every sample
/// refused, and every read that ended (or failed) before the point it should have reached. Shared
/// by the readers of one scan, which may run on several threads at once; thread-safe.
class ReadLedger
{
public:
    ReadLedger();
    ~ReadLedger();
    ReadLedger(const ReadLedger&) = delete;
    ReadLedger& operator=(const ReadLedger&) = delete;
    ReadLedger(ReadLedger&&) = delete;
    ReadLedger& operator=(ReadLedger&&) = delete;

    /// What the watched readers met so far. A read counts as short when it ended at the end of
    /// its input, or failed, more than two frames before the end of its time range or the track's
    /// declared duration, whichever comes first; coveredUntil is the earliest point a short read
    /// reached. Without a declared duration no read counts as short. declaredDuration is that of
    /// the track last read.
    [[nodiscard]] ReadDamage damage() const;

    // What the watched readers report.

    /// A reader of a track with this declared duration was made.
    void noteTrack(const std::optional<core::MediaTime>& declaredDuration);
    /// A frame shown at `time` was damaged or refused; an invalid time counts as a frame of its
    /// own every time.
    void noteDamagedFrame(const core::MediaTime& time);
    /// A read found nothing more to read after `reachedUntil` although it should have gone on.
    void noteShortRead(const core::MediaTime& reachedUntil);

private:
    std::unique_ptr<detail::ReadLedgerState> state_;
};

/// `asset` with every frame reader it makes watched by `ledger`; the readers deliver exactly what
/// the asset's own readers deliver, and the asset is otherwise unchanged.
[[nodiscard]] media::AssetPointer watchReads(media::AssetPointer asset,
                                             std::shared_ptr<ReadLedger> ledger);

}  // namespace kestrin::scan
