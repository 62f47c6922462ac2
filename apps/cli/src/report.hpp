#pragma once

#include "run.hpp"

#include <string>
#include <string_view>

namespace kestrin::cli {

/// `text` as a JSON string, quotes included: quotes, backslashes and control characters (C0, DEL,
/// C1) escaped, other well-formed UTF-8 passed through, and every byte that is not part of a
/// well-formed UTF-8 sequence (file names need not be UTF-8) written as "\ufffd", so the line stays
/// valid JSON.
[[nodiscard]] std::string jsonString(std::string_view text);

/// `text` made safe to print on a terminal: every control character (C0, DEL and C1, which can
/// start escape sequences) and every byte that is not part of a well-formed UTF-8 sequence is
/// shown as "\xHH", its bytes in hexadecimal; everything else is kept.
[[nodiscard]] std::string terminalText(std::string_view text);

/// The JSON object of one video, on one line without its newline.
[[nodiscard]] std::string jsonLine(const VideoReport& report);

/// The line printed for one video without its newline: "<file>: 9 cuts (keyframes) -> <midi>",
/// or for a failed one "kestrin-scan: <file>: <reason>"; made safe by terminalText.
[[nodiscard]] std::string humanLine(const VideoReport& report);

/// The warning line for a video scanned with damage, "kestrin-scan: warning: <file>: " and
/// app::damageText(), made safe by terminalText; empty when there is nothing to warn of.
[[nodiscard]] std::string warningLine(const VideoReport& report);

}  // namespace kestrin::cli
