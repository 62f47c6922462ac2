#pragma once

#include <kestrin/core/media_time.hpp>

#include <cstdint>

namespace kestrin::media {

/// A position on one sample of a track's sample table, movable in decode order and in
/// presentation order. Reading the current sample's flags and time, and stepping, never decode a
/// picture: they work from the container's index or from demuxed packet headers.
///
/// A cursor belongs to one thread at a time. It stays valid after its asset is released.
class SampleCursor
{
public:
    virtual ~SampleCursor() = default;

    /// Whether the current sample is a full sync sample (a keyframe that decodes on its own).
    [[nodiscard]] virtual bool currentSampleIsFullSync() const = 0;

    /// The current sample's presentation time: exact, on the track's timeline where the first
    /// presented frame is at 0. Invalid when the container gives the sample no time.
    [[nodiscard]] virtual core::MediaTime presentationTimeStamp() const = 0;

    /// Moves `count` samples forward (count > 0) or back (count < 0) in decode order and returns
    /// how far it actually moved: less than asked at either end of the track, 0 when it could not
    /// move at all. May read further packet headers from the file; never decodes.
    virtual std::int64_t stepInDecodeOrder(std::int64_t count) = 0;

    /// The same in presentation order.
    virtual std::int64_t stepInPresentationOrder(std::int64_t count) = 0;
};

}  // namespace kestrin::media
