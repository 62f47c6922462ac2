#pragma once

#include <kestrin/core/error.hpp>

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kestrin::midi {

// File helpers of the exporter's round trip through a temporary file. Every failure of the
// operating system comes back as an Error with domain "POSIX", the errno value as code, and a
// description naming what failed, the path and the system's text for the errno.

/// `randomBytes` as a version 4 UUID in its standard text form, 8-4-4-4-12 uppercase hexadecimal
/// digits (36 characters). The version and variant bits are set over the given bytes; the other
/// 122 bits are taken as they are.
[[nodiscard]] std::string uuidText(const std::array<std::uint8_t, 16>& randomBytes);

/// A new random version 4 UUID as uuidText gives it, drawn from the kernel's random source. Fails
/// only when that source fails.
[[nodiscard]] core::Expected<std::string> randomUUIDText();

/// The whole contents of the regular file at `path`.
[[nodiscard]] core::Expected<std::vector<std::uint8_t>> readWholeFile(
    const std::filesystem::path& path);

}  // namespace kestrin::midi
