#pragma once

#include <cstdint>

namespace kestrin::core {

/// How a scan finds the edits of a video.
enum class ScanMode : std::uint8_t {
    /// The sync samples sit at cuts: list them from the sample tables and confirm each one.
    trustedKeyframes = 0,
    /// They cannot be trusted: decode the whole track and score every few frames.
    noKeyframes = 1,
};

}  // namespace kestrin::core
