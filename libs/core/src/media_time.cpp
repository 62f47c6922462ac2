#include <kestrin/core/hash_builder.hpp>
#include <kestrin/core/media_time.hpp>
#include <kestrin/core/wide_math.hpp>

#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>

namespace kestrin::core {
namespace {

// 128-bit products keep every comparison and sum exact for 64-bit values and 32-bit timescales.
constexpr Int128 kInt64Max = std::numeric_limits<std::int64_t>::max();
constexpr Int128 kInt64Min = std::numeric_limits<std::int64_t>::min();
constexpr Int128 kInt32Max = std::numeric_limits<std::int32_t>::max();

// The order of the kinds of time, from the lowest to the highest.
enum class Kind : std::uint8_t { NegativeInfinity, Finite, Indefinite, PositiveInfinity, Invalid };

Kind kindOf(const MediaTime& time)
{
    if (!time.isValid()) {
        return Kind::Invalid;
    }
    if ((time.flags & MediaTime::kIndefinite) != 0U) {
        return Kind::Indefinite;
    }
    if ((time.flags & MediaTime::kPositiveInfinity) != 0U) {
        return Kind::PositiveInfinity;
    }
    if ((time.flags & MediaTime::kNegativeInfinity) != 0U) {
        return Kind::NegativeInfinity;
    }
    return Kind::Finite;
}

Int128 absolute(Int128 x)
{
    return x < 0 ? -x : x;
}

Int128 gcd128(Int128 a, Int128 b)
{
    a = absolute(a);
    b = absolute(b);
    while (b != 0) {
        const Int128 r = a % b;
        a = b;
        b = r;
    }
    return a;
}

// A finite time from a 128-bit value, or the infinity of its sign when it does not fit.
MediaTime saturated(Int128 value, std::int32_t timescale, std::uint32_t extraFlags)
{
    if (value > kInt64Max) {
        return MediaTime::positiveInfinity();
    }
    if (value < kInt64Min) {
        return MediaTime::negativeInfinity();
    }
    return MediaTime{
        static_cast<std::int64_t>(value), timescale, MediaTime::kValid | extraFlags, 0};
}

std::uint32_t roundedFlag(const MediaTime& a, const MediaTime& b)
{
    return (a.flags | b.flags) & MediaTime::kHasBeenRounded;
}

MediaTime negated(const MediaTime& time)
{
    switch (kindOf(time)) {
        case Kind::PositiveInfinity:
            return MediaTime::negativeInfinity();
        case Kind::NegativeInfinity:
            return MediaTime::positiveInfinity();
        case Kind::Finite:
            if (time.value == std::numeric_limits<std::int64_t>::min()) {
                return MediaTime::positiveInfinity();
            }
            return MediaTime{-time.value, time.timescale, time.flags, time.epoch};
        case Kind::Indefinite:
        case Kind::Invalid:
            break;
    }
    return time;
}

}  // namespace

MediaTime MediaTime::fromSeconds(double seconds, std::int32_t preferredTimescale)
{
    if (std::isnan(seconds) || preferredTimescale <= 0) {
        return invalid();
    }
    if (std::isinf(seconds)) {
        return seconds > 0 ? positiveInfinity() : negativeInfinity();
    }
    const double scaled = seconds * static_cast<double>(preferredTimescale);
    const double rounded = std::round(scaled);
    // 2^63 is exactly representable; anything at or beyond it does not fit a signed 64-bit value.
    constexpr double kLimit = 9223372036854775808.0;
    if (rounded >= kLimit) {
        return positiveInfinity();
    }
    if (rounded < -kLimit) {
        return negativeInfinity();
    }
    const std::uint32_t roundedFlags = rounded == scaled ? 0U : kHasBeenRounded;
    return MediaTime{
        static_cast<std::int64_t>(rounded), preferredTimescale, kValid | roundedFlags, 0};
}

bool MediaTime::isValid() const
{
    if ((flags & kValid) == 0U) {
        return false;
    }
    const bool nonNumeric = (flags & (kPositiveInfinity | kNegativeInfinity | kIndefinite)) != 0U;
    return nonNumeric || timescale > 0;
}

bool MediaTime::isNumeric() const
{
    return kindOf(*this) == Kind::Finite;
}
bool MediaTime::isPositiveInfinity() const
{
    return kindOf(*this) == Kind::PositiveInfinity;
}
bool MediaTime::isNegativeInfinity() const
{
    return kindOf(*this) == Kind::NegativeInfinity;
}
bool MediaTime::isIndefinite() const
{
    return kindOf(*this) == Kind::Indefinite;
}

double MediaTime::seconds() const
{
    switch (kindOf(*this)) {
        case Kind::Finite:
            return static_cast<double>(value) / static_cast<double>(timescale);
        case Kind::PositiveInfinity:
            return std::numeric_limits<double>::infinity();
        case Kind::NegativeInfinity:
            return -std::numeric_limits<double>::infinity();
        case Kind::Indefinite:
        case Kind::Invalid:
            break;
    }
    return std::numeric_limits<double>::quiet_NaN();
}

MediaTime MediaTime::multipliedByRatio(std::int32_t multiplier, std::int32_t divisor) const
{
    const Kind kind = kindOf(*this);
    if (kind == Kind::Invalid || divisor == 0) {
        return invalid();
    }
    if (kind == Kind::Indefinite) {
        return *this;
    }
    const bool negativeRatio = (multiplier < 0) != (divisor < 0);
    if (kind != Kind::Finite) {
        if (multiplier == 0) {
            return indefinite();
        }
        return negativeRatio ? negated(*this) : *this;
    }

    Int128 numerator = static_cast<Int128>(value) * multiplier;
    Int128 denominator = divisor;
    if (denominator < 0) {
        numerator = -numerator;
        denominator = -denominator;
    }
    // Exact in this time's own timescale.
    if (numerator % denominator == 0) {
        MediaTime result = saturated(numerator / denominator, timescale, flags & kHasBeenRounded);
        result.epoch = result.isNumeric() ? epoch : 0;
        return result;
    }
    // Exact in a finer timescale that still fits.
    Int128 scale = static_cast<Int128>(timescale) * denominator;
    const Int128 common = gcd128(numerator, scale);
    if (scale / common <= kInt32Max && absolute(numerator / common) <= kInt64Max) {
        return MediaTime{static_cast<std::int64_t>(numerator / common),
                         static_cast<std::int32_t>(scale / common),
                         kValid | (flags & kHasBeenRounded),
                         epoch};
    }
    MediaTime result =
        saturated(divideRoundingToNearest(numerator, denominator), timescale, kHasBeenRounded);
    result.epoch = result.isNumeric() ? epoch : 0;
    return result;
}

std::size_t MediaTime::hashValue() const
{
    HashBuilder hash;
    const Kind kind = kindOf(*this);
    hash.add(static_cast<std::uint64_t>(kind));
    if (kind == Kind::Finite) {
        // The reduced fraction is the same for every spelling of one rational value.
        const std::int64_t common = std::gcd(value, static_cast<std::int64_t>(timescale));
        const std::int64_t divisor = common == 0 ? 1 : common;
        hash.addSigned(value / divisor);
        hash.addSigned(timescale / divisor);
        hash.addSigned(epoch);
    }
    return hash.result();
}

int compare(const MediaTime& a, const MediaTime& b)
{
    const Kind kindA = kindOf(a);
    const Kind kindB = kindOf(b);
    if (kindA != kindB) {
        return kindA < kindB ? -1 : 1;
    }
    if (kindA != Kind::Finite) {
        return 0;
    }
    if (a.epoch != b.epoch) {
        return a.epoch < b.epoch ? -1 : 1;
    }
    // Both timescales are positive, so cross-multiplying keeps the order.
    const Int128 left = static_cast<Int128>(a.value) * b.timescale;
    const Int128 right = static_cast<Int128>(b.value) * a.timescale;
    if (left == right) {
        return 0;
    }
    return left < right ? -1 : 1;
}

MediaTime operator+(const MediaTime& a, const MediaTime& b)
{
    const Kind kindA = kindOf(a);
    const Kind kindB = kindOf(b);
    if (kindA == Kind::Invalid || kindB == Kind::Invalid) {
        return MediaTime::invalid();
    }
    if (kindA == Kind::Indefinite || kindB == Kind::Indefinite) {
        return MediaTime::indefinite();
    }
    if (kindA != Kind::Finite || kindB != Kind::Finite) {
        if (kindA != Kind::Finite && kindB != Kind::Finite && kindA != kindB) {
            return MediaTime::indefinite();
        }
        return kindA != Kind::Finite ? a : b;
    }
    if (a.epoch != b.epoch) {
        return MediaTime::invalid();
    }

    if (a.timescale == b.timescale) {
        const Int128 sum = static_cast<Int128>(a.value) + b.value;
        MediaTime result = saturated(sum, a.timescale, roundedFlag(a, b));
        result.epoch = result.isNumeric() ? a.epoch : 0;
        return result;
    }
    const Int128 common = gcd128(a.timescale, b.timescale);
    const Int128 lcm = static_cast<Int128>(a.timescale) / common * b.timescale;
    if (lcm <= kInt32Max) {
        const Int128 sum = static_cast<Int128>(a.value) * (lcm / a.timescale)
                           + static_cast<Int128>(b.value) * (lcm / b.timescale);
        MediaTime result = saturated(sum, static_cast<std::int32_t>(lcm), roundedFlag(a, b));
        result.epoch = result.isNumeric() ? a.epoch : 0;
        return result;
    }
    // No common timescale fits: meet at the finer of the two and round.
    const std::int32_t target = a.timescale > b.timescale ? a.timescale : b.timescale;
    const Int128 exactNumerator =
        static_cast<Int128>(a.value) * b.timescale + static_cast<Int128>(b.value) * a.timescale;
    const Int128 denominator = static_cast<Int128>(a.timescale) * b.timescale;
    // exactNumerator / denominator seconds, expressed in `target` units.
    const Int128 common2 = gcd128(exactNumerator, denominator);
    const Int128 reducedNumerator = exactNumerator / (common2 == 0 ? 1 : common2);
    const Int128 reducedDenominator = denominator / (common2 == 0 ? 1 : common2);
    const Int128 scaled = divideRoundingToNearest(reducedNumerator * target, reducedDenominator);
    const bool exact = (reducedNumerator * target) % reducedDenominator == 0;
    MediaTime result =
        saturated(scaled, target, roundedFlag(a, b) | (exact ? 0U : MediaTime::kHasBeenRounded));
    result.epoch = result.isNumeric() ? a.epoch : 0;
    return result;
}

MediaTime operator-(const MediaTime& a, const MediaTime& b)
{
    return a + negated(b);
}

}  // namespace kestrin::core
