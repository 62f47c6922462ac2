#pragma once

// Internal to the scan library: the medians, deviations and mean differences the detectors judge
// changes by. Each reorders only what it is given and does one selection (std::nth_element) where
// a sort would do more work than the answer needs.

#include <algorithm>
#include <cmath>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>
#include <vector>

namespace kestrin::scan::detail {

/// The median of `values`, reordering them: the middle value, or for an even count the mean of the
/// two middle values in T's own arithmetic; T{} for no values.
template <std::floating_point T>
[[nodiscard]] T medianOf(std::span<T> values)
{
    if (values.empty()) {
        return T{};
    }
    const auto middle = values.begin() + std::ssize(values) / 2;
    std::nth_element(values.begin(), middle, values.end());
    if (values.size() % 2 == 1) {
        return *middle;
    }
    return (*std::max_element(values.begin(), middle) + *middle) / T{2};
}

/// The upper median of `values`, reordering them: the middle value, or for an even count the
/// larger of the two middle values, so always one of the values; T{} for no values.
template <typename T>
[[nodiscard]] T upperMedianOf(std::span<T> values)
{
    if (values.empty()) {
        return T{};
    }
    const auto middle = values.begin() + std::ssize(values) / 2;
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// The median of |v - centre| over `values` (not scaled to a standard deviation); T{} for no
/// values. Cost: one copy and one selection.
template <std::floating_point T>
[[nodiscard]] T medianAbsoluteDeviation(std::span<const std::type_identity_t<T>> values, T centre)
{
    std::vector<T> deviations(values.size());
    std::transform(values.begin(), values.end(), deviations.begin(), [centre](T value) {
        return std::abs(value - centre);
    });
    return medianOf(std::span(deviations));
}

/// The mean of |a[i] - b[i]| over the bytes both spans have, as a `Result`; 0 when they share
/// none. The sum is an exact integer, divided once.
template <typename Result>
[[nodiscard]] Result meanAbsoluteDifference(std::span<const std::uint8_t> a,
                                            std::span<const std::uint8_t> b)
{
    const std::size_t length = std::min(a.size(), b.size());
    if (length == 0) {
        return Result{};
    }
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < length; ++i) {
        sum += static_cast<std::uint64_t>(a[i] > b[i] ? a[i] - b[i] : b[i] - a[i]);
    }
    return static_cast<Result>(sum) / static_cast<Result>(length);
}

}  // namespace kestrin::scan::detail
