#pragma once

// Exact integer arithmetic for products of 64-bit times and rates, which need more than 64 bits
// (a 64-bit time value times a 32-bit timescale, say). GCC and Clang both provide __int128.

#include <cstdint>
#include <limits>

namespace kestrin::core {

__extension__ using Int128 = __int128;

/// `numerator` / `denominator` rounded to the nearest integer, halves away from zero.
/// `denominator` must be above 0.
constexpr Int128 divideRoundingToNearest(Int128 numerator, Int128 denominator)
{
    const Int128 half = denominator / 2;
    return numerator >= 0 ? (numerator + half) / denominator : (numerator - half) / denominator;
}

/// `numerator` / `denominator` rounded towards negative infinity. `denominator` must be above 0.
constexpr Int128 divideRoundingDown(Int128 numerator, Int128 denominator)
{
    const Int128 quotient = numerator / denominator;
    return (numerator % denominator != 0 && numerator < 0) ? quotient - 1 : quotient;
}

/// Whether `value` fits a signed 64-bit integer.
constexpr bool fitsInt64(Int128 value)
{
    return value >= std::numeric_limits<std::int64_t>::min()
           && value <= std::numeric_limits<std::int64_t>::max();
}

}  // namespace kestrin::core
