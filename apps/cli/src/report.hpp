#pragma once

#include "run.hpp"

#include <string>
#include <string_view>

namespace kestrin::cli {

/// `text` as a JSON string, quotes included: quotes, backslashes and control characters escaped,
/// everything else (UTF-8 included) passed through.
[[nodiscard]] std::string jsonString(std::string_view text);

/// The JSON object of one video, on one line without its newline.
[[nodiscard]] std::string jsonLine(const VideoReport& report);

/// The line printed for one video without its newline: "<file>: 9 cuts (keyframes) -> <midi>",
/// or for a failed one "kestrin-scan: <file>: <reason>".
[[nodiscard]] std::string humanLine(const VideoReport& report);

}  // namespace kestrin::cli
