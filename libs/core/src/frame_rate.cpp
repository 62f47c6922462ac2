#include <kestrin/core/frame_rate.hpp>
#include <kestrin/core/wide_math.hpp>

#include <algorithm>
#include <cmath>
#include <limits>

namespace kestrin::core {

double FrameRate::framesPerSecond() const
{
    if (denominator <= 0) {
        return 0.0;
    }
    return static_cast<double>(numerator) / static_cast<double>(denominator);
}

int FrameRate::timecodeBase() const
{
    if (numerator <= 0 || denominator <= 0) {
        return 0;
    }
    const Int128 base = divideRoundingToNearest(numerator, denominator);
    return static_cast<int>(std::min<Int128>(base, std::numeric_limits<int>::max()));
}

bool FrameRate::allowsDropFrame() const
{
    return *this == kFps2997 || *this == kFps5994;
}

FrameRate standardFrameRate(float fps)
{
    const StandardFrameRate* best = kStandardFrameRates.data();
    for (const StandardFrameRate& row : kStandardFrameRates) {
        if (std::fabs(row.nominal - fps) < std::fabs(best->nominal - fps)) {
            best = &row;
        }
    }
    return best->rate;
}

std::optional<StandardFrameRate> standardFrameRateRow(FrameRate rate)
{
    const auto* row = std::find_if(kStandardFrameRates.begin(),
                                   kStandardFrameRates.end(),
                                   [&](const StandardFrameRate& r) { return r.rate == rate; });
    if (row == kStandardFrameRates.end()) {
        return std::nullopt;
    }
    return *row;
}

}  // namespace kestrin::core
