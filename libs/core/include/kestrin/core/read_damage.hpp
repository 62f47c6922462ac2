#pragma once

#include <kestrin/core/media_time.hpp>

#include <cstdint>
#include <optional>

namespace kestrin::core {

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

}  // namespace kestrin::core
