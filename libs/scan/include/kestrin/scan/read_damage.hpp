#pragma once

#include <kestrin/core/media_time.hpp>
#include <kestrin/core/read_damage.hpp>
#include <kestrin/media/asset.hpp>

#include <cstdint>
#include <memory>
#include <optional>

namespace kestrin::scan {

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
    [[nodiscard]] core::ReadDamage damage() const;

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
