#pragma once

// Frame rates. Every rate a user works in is one of the eight standard rates below: a file's rate,
// a --rate option and a rate button enter through `standardFrameRate` once, and every layer after
// that takes the `FrameRate` it gave, so the rules of a rate (its timecode's whole frames per
// second, whether drop-frame numbering exists) live here and nowhere else.

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace kestrin::core {

/// A frame rate as an exact fraction: numerator / denominator frames per second, 30000 / 1001 at
/// 29.97. Two rates are equal when both fields are; the standard rates are in lowest terms.
struct FrameRate
{
    std::int64_t numerator = 0;
    std::int64_t denominator = 1;

    /// Frames per second; 0 when the denominator is 0 or below.
    [[nodiscard]] double framesPerSecond() const;

    /// Whole frames per second of the timecode at this rate (its frame base): the rate rounded to
    /// the nearest whole number, so 24 at 23.976, 30 at 29.97 and 60 at 59.94; 0 for a rate that is
    /// not above 0.
    [[nodiscard]] int timecodeBase() const;

    /// Whether drop-frame numbering exists at this rate: at 29.97 and 59.94 only.
    [[nodiscard]] bool allowsDropFrame() const;

    friend bool operator==(const FrameRate&, const FrameRate&) = default;
};

inline constexpr FrameRate kFps23976{24000, 1001};
inline constexpr FrameRate kFps24{24, 1};
inline constexpr FrameRate kFps25{25, 1};
inline constexpr FrameRate kFps2997{30000, 1001};
inline constexpr FrameRate kFps30{30, 1};
inline constexpr FrameRate kFps50{50, 1};
inline constexpr FrameRate kFps5994{60000, 1001};
inline constexpr FrameRate kFps60{60, 1};

/// A rate a user can choose, with the nominal value it is known by.
struct StandardFrameRate
{
    FrameRate rate;
    /// The nominal rate as a 32-bit float (29.97F), as a file or a user states it.
    float nominal = 0.0F;
    /// The rate as it is written for a user: "23.976", "25", "29.97".
    std::string_view label;
};

/// The standard rates in ascending order, which is also the order that decides ties when
/// snapping.
inline constexpr std::array<StandardFrameRate, 8> kStandardFrameRates = {{
    {kFps23976, 23.976F, "23.976"},
    {kFps24, 24.0F, "24"},
    {kFps25, 25.0F, "25"},
    {kFps2997, 29.97F, "29.97"},
    {kFps30, 30.0F, "30"},
    {kFps50, 50.0F, "50"},
    {kFps5994, 59.94F, "59.94"},
    {kFps60, 60.0F, "60"},
}};

/// The standard rate whose nominal value is nearest to `fps`, compared in 32-bit floats; on a tie
/// the earlier (smaller) rate wins, so 24.5 gives 24 and 40 gives 30. NaN gives 23.976.
[[nodiscard]] FrameRate standardFrameRate(float fps);

/// The table row of `rate`; absent when `rate` is not one of the standard rates.
[[nodiscard]] std::optional<StandardFrameRate> standardFrameRateRow(FrameRate rate);

}  // namespace kestrin::core
