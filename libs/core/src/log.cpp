#include <kestrin/core/log.hpp>

#include <array>
#include <charconv>
#include <cmath>
#include <string>
#include <system_error>

#include <unistd.h>

namespace kestrin::core {

Log::Log()
    : sink_([](std::string_view text) {
        std::string whole(text);
        whole.push_back('\n');
        // One write per line: the kernel keeps a single write to a pipe or terminal together.
        const char* data = whole.data();
        std::size_t left = whole.size();
        while (left > 0) {
            const ssize_t written = ::write(STDERR_FILENO, data, left);
            if (written <= 0) {
                return;
            }
            data += written;
            left -= static_cast<std::size_t>(written);
        }
    })
{}

std::string shortestDecimal(double value)
{
    if (std::isnan(value)) {
        return "nan";
    }
    if (std::isinf(value)) {
        return value > 0 ? "inf" : "-inf";
    }
    std::array<char, 64> buffer{};
    const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
    std::string text(buffer.data(), result.ptr);
    // to_chars picks the shortest round-trip form but may use an exponent (1e+16) or drop the
    // fraction of a whole number; the log shows plain decimals with at least one fractional digit.
    if (text.find_first_of("e") != std::string::npos) {
        const auto fixed = std::to_chars(
            buffer.data(), buffer.data() + buffer.size(), value, std::chars_format::fixed);
        text.assign(buffer.data(), fixed.ptr);
    }
    if (text.find('.') == std::string::npos) {
        text += ".0";
    }
    return text;
}

}  // namespace kestrin::core
