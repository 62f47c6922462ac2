#pragma once

// Time words used across Kestrin:
//  - time: a point on a media timeline, held exactly as a rational number of seconds (MediaTime).
//  - timescale: how many units make one second (600, 90000, 30000, ...); a time's value counts
//  them.
//  - timestamp: a time a container or decoder attaches to a sample (presentation or decode time).
//  - frame index: the 0-based position of a frame in presentation order, as a detector counts it.
//  - timecode: a label HH:MM:SS:FF for a frame as a sound session shows it, non-drop or drop-frame.

#include <cstddef>
#include <cstdint>
#include <functional>
// For the orderings of <compare>, which <utility> includes: named directly, <compare> stops Qt's
// moc, which reads this header through the view model's.
#include <utility>

namespace kestrin::core {

/// A rational time value / timescale seconds with the flags and epoch of a media framework's
/// time, so that times coming from a container keep their exact meaning.
///
/// Comparison is exact on the rational value whatever the two timescales (1/2 equals 300/600),
/// for any 64-bit value and 32-bit timescale. Beyond finite times the order is
///     negative infinity < finite times < indefinite < positive infinity < invalid,
/// where each non-finite kind equals itself (every invalid time equals every other invalid time).
/// Finite times of different epochs order by epoch first; Kestrin only makes epoch 0.
///
/// A numeric time needs a positive timescale: a time flagged valid with a timescale of 0 or below
/// is treated as invalid.
struct MediaTime
{
    static constexpr std::uint32_t kValid = 1U << 0U;
    static constexpr std::uint32_t kHasBeenRounded = 1U << 1U;
    static constexpr std::uint32_t kPositiveInfinity = 1U << 2U;
    static constexpr std::uint32_t kNegativeInfinity = 1U << 3U;
    static constexpr std::uint32_t kIndefinite = 1U << 4U;

    std::int64_t value = 0;
    std::int32_t timescale = 0;
    std::uint32_t flags = 0;  ///< kValid, kHasBeenRounded, kPositiveInfinity, ...
    std::int64_t epoch = 0;

    /// value / timescale seconds, valid, epoch 0.
    static constexpr MediaTime make(std::int64_t value, std::int32_t timescale)
    {
        return MediaTime{value, timescale, kValid, 0};
    }
    static constexpr MediaTime zero() { return make(0, 1); }
    static constexpr MediaTime invalid() { return MediaTime{}; }
    static constexpr MediaTime positiveInfinity()
    {
        return MediaTime{0, 0, kValid | kPositiveInfinity, 0};
    }
    static constexpr MediaTime negativeInfinity()
    {
        return MediaTime{0, 0, kValid | kNegativeInfinity, 0};
    }
    static constexpr MediaTime indefinite() { return MediaTime{0, 0, kValid | kIndefinite, 0}; }

    /// The nearest time to `seconds` in `preferredTimescale` (halves away from zero), flagged as
    /// rounded when it is not exact. NaN or a timescale of 0 or below gives an invalid time;
    /// infinities, and values beyond the 64-bit range, give the infinity of their sign.
    static MediaTime fromSeconds(double seconds, std::int32_t preferredTimescale);

    [[nodiscard]] bool isValid() const;
    /// Valid and neither infinite nor indefinite: a time with a value.
    [[nodiscard]] bool isNumeric() const;
    [[nodiscard]] bool isPositiveInfinity() const;
    [[nodiscard]] bool isNegativeInfinity() const;
    [[nodiscard]] bool isIndefinite() const;

    /// value / timescale as a 64-bit float; NaN for an invalid or indefinite time, +/- infinity for
    /// the infinite times.
    [[nodiscard]] double seconds() const;

    /// This time times multiplier / divisor. Exact whenever the result can be held (keeping this
    /// time's timescale where it can); otherwise rounded to this time's timescale and flagged
    /// rounded, or an infinity when even that overflows. A divisor of 0 gives an invalid time.
    [[nodiscard]] MediaTime multipliedByRatio(std::int32_t multiplier, std::int32_t divisor) const;

    /// A hash that agrees with ==: equal times hash alike whatever their timescales.
    [[nodiscard]] std::size_t hashValue() const;
};

/// Three-way comparison by the order stated on MediaTime: below 0, 0 or above 0.
int compare(const MediaTime& a, const MediaTime& b);

inline bool operator==(const MediaTime& a, const MediaTime& b)
{
    return compare(a, b) == 0;
}
/// Weak: equivalent times may differ in timescale (1/2 and 300/600), or be two invalid times.
inline std::weak_ordering operator<=>(const MediaTime& a, const MediaTime& b)
{
    return compare(a, b) <=> 0;
}

/// Exact sum and difference. Operands of different timescales meet at their least common
/// timescale when it fits in 32 bits, otherwise at the larger timescale with the result rounded
/// (halves away from zero) and flagged rounded. A result beyond the 64-bit range saturates to an
/// infinity. An invalid operand, or finite operands of different epochs, give an invalid time;
/// an indefinite operand, or infinities of opposite sign meeting, give indefinite.
MediaTime operator+(const MediaTime& a, const MediaTime& b);
MediaTime operator-(const MediaTime& a, const MediaTime& b);

/// A stretch of time: `start` and `duration`.
struct MediaTimeRange
{
    MediaTime start;
    MediaTime duration;

    /// The range from `start` up to `end` (duration = end - start).
    static MediaTimeRange fromStartEnd(const MediaTime& start, const MediaTime& end)
    {
        return MediaTimeRange{start, end - start};
    }
    [[nodiscard]] MediaTime end() const { return start + duration; }

    friend bool operator==(const MediaTimeRange&, const MediaTimeRange&) = default;
};

}  // namespace kestrin::core

template <>
struct std::hash<kestrin::core::MediaTime>
{
    std::size_t operator()(const kestrin::core::MediaTime& time) const noexcept
    {
        return time.hashValue();
    }
};
