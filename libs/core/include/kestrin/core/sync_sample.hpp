#pragma once

#include <kestrin/core/media_time.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

namespace kestrin::core {

/// One sync (key) sample of a video track.
///
/// Equal when index, time and duration are equal (a duration present on one side only makes them
/// unequal). Ordered by their times in seconds (64-bit floats) when both are finite and differ,
/// otherwise by index: two samples whose times are too close to differ in seconds, or whose times
/// are not finite, order by index. Duration takes no part in the order.
struct SyncSample
{
    /// Position in the track's decode order, 0 for the first sample, counting every sample.
    std::int64_t index = 0;
    /// Presentation time stamp.
    MediaTime time;
    /// The sample's duration where the container gives one.
    std::optional<MediaTime> duration;

    [[nodiscard]] std::size_t hashValue() const;

    friend bool operator==(const SyncSample&, const SyncSample&) = default;
};

std::weak_ordering operator<=>(const SyncSample& a, const SyncSample& b);

}  // namespace kestrin::core

template <>
struct std::hash<kestrin::core::SyncSample>
{
    std::size_t operator()(const kestrin::core::SyncSample& sample) const noexcept
    {
        return sample.hashValue();
    }
};
