#pragma once

#include <kestrin/core/media_time.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

namespace kestrin::core {

/// One detected picture edit (cut).
///
/// Equal when the frame indices are equal, the times compare equal and the confidences are both
/// absent or both present and equal as floats (so NaN never equals itself and -0 equals +0).
/// Ordered by time, then frame index; confidence takes no part in the order, so two markers that
/// differ only in confidence are neither less nor greater than each other, yet not equal.
struct EditMarker
{
    /// The edit's first frame, counted from 0 as the detector that found it counts.
    std::int64_t frameIndex = 0;
    /// Presentation time of that frame.
    MediaTime time;
    /// Strength of the detection where the detector has one.
    std::optional<float> confidence;

    [[nodiscard]] std::size_t hashValue() const;

    friend bool operator==(const EditMarker&, const EditMarker&) = default;
};

std::weak_ordering operator<=>(const EditMarker& a, const EditMarker& b);

}  // namespace kestrin::core

template <>
struct std::hash<kestrin::core::EditMarker>
{
    std::size_t operator()(const kestrin::core::EditMarker& marker) const noexcept
    {
        return marker.hashValue();
    }
};
