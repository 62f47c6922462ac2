#include <kestrin/core/log.hpp>

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace kestrin::core {
namespace {

TEST(ShortestDecimal, RoundTripsAndKeepsAFraction)
{
    struct Row
    {
        double value;
        const char* text;
    };
    const Row rows[] = {
        {25.0, "25.0"},
        {static_cast<double>(29.97F), "29.969999313354492"},
        {static_cast<double>(59.94F), "59.939998626708984"},
        {1001.0 / 30000.0, "0.03336666666666667"},
        {0.5, "0.5"},
        {-3.0, "-3.0"},
        {0.0, "0.0"},
        {1e16, "10000000000000000.0"},
        {0.00001, "0.00001"},
        {std::numeric_limits<double>::quiet_NaN(), "nan"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(shortestDecimal(row.value), row.text);
    }
}

}  // namespace
}  // namespace kestrin::core
