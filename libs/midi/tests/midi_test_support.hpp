#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <span>
#include <string>
#include <vector>

namespace kestrin::midi::testing {

/// Line `line` of a hex dump of `bytes`, 16 bytes a line: "0010: 72 6B 00 ...", or "" past the end.
inline std::string hexLine(std::span<const std::uint8_t> bytes, std::size_t line)
{
    std::string text;
    char hex[32];
    for (std::size_t i = line * 16; i < bytes.size() && i < line * 16 + 16; ++i) {
        if (i == line * 16) {
            std::snprintf(hex, sizeof hex, "%04zx:", i);
            text += hex;
        }
        std::snprintf(hex, sizeof hex, " %02X", bytes[i]);
        text += hex;
    }
    return text;
}

/// Success when the byte strings are equal; otherwise both hex dumps side by side (expected |
/// actual), the lines that differ marked "!".
inline ::testing::AssertionResult bytesEqual(std::span<const std::uint8_t> expected,
                                             std::span<const std::uint8_t> actual)
{
    if (std::equal(expected.begin(), expected.end(), actual.begin(), actual.end())) {
        return ::testing::AssertionSuccess();
    }
    auto result = ::testing::AssertionFailure()
                  << "expected " << expected.size() << " bytes, got " << actual.size() << ":\n";
    for (std::size_t line = 0; line * 16 < std::max(expected.size(), actual.size()); ++line) {
        const std::string left = hexLine(expected, line);
        const std::string right = hexLine(actual, line);
        result << (left == right ? "  " : "! ") << left << std::string(55 - left.size(), ' ')
               << "| " << right << "\n";
    }
    return result;
}

inline std::vector<std::uint8_t> readBytes(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeBytes(const std::filesystem::path& path, std::span<const std::uint8_t> bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

struct MarkerEvent
{
    std::uint64_t deltaTicks = 0;
    std::string text;

    friend bool operator==(const MarkerEvent&, const MarkerEvent&) = default;
    friend void PrintTo(const MarkerEvent& event, std::ostream* out)
    {
        *out << "{" << event.deltaTicks << ", \"" << event.text << "\"}";
    }
};

/// The marker events of a one-track file, read without the writer's code; every event after the
/// 22 header bytes must be a meta event, as every event Kestrin writes is.
inline std::vector<MarkerEvent> markerEvents(std::span<const std::uint8_t> file)
{
    std::vector<MarkerEvent> markers;
    std::size_t at = 22;
    const auto quantity = [&] {
        std::uint64_t value = 0;
        for (bool more = true; more && at < file.size(); ++at) {
            value = (value << 7U) | (file[at] & 0x7FU);
            more = (file[at] & 0x80U) != 0;
        }
        return value;
    };
    while (at < file.size()) {
        const std::uint64_t delta = quantity();
        if (at + 2 > file.size() || file[at] != 0xFF) {
            ADD_FAILURE() << "no meta event at offset " << at;
            break;
        }
        const std::uint8_t type = file[at + 1];
        at += 2;
        const std::size_t length = quantity();
        const auto text = file.subspan(at, std::min(length, file.size() - at));
        if (type == 0x06) {
            markers.push_back({delta, std::string(text.begin(), text.end())});
        }
        at += text.size();
    }
    return markers;
}

}  // namespace kestrin::midi::testing
