#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace kestrin::core {

/// Where diagnostic lines go. Each call to line() delivers one whole line (without its newline)
/// to the sink; the standard-error sink writes it with its newline in a single write, so lines
/// from different threads never interleave. Components take a Log by value at construction;
/// tests pass one that collects the lines.
class Log
{
public:
    using Sink = std::function<void(std::string_view line)>;

    /// Writes every line to standard error.
    Log();
    explicit Log(Sink sink)
        : sink_(std::move(sink))
    {}

    /// A log that drops every line.
    static Log discard()
    {
        return Log([](std::string_view) {});
    }

    /// Delivers `text` as one line. Thread-safe when the sink is.
    void line(std::string_view text) const { sink_(text); }

private:
    Sink sink_;
};

/// `value` in the shortest decimal form that reads back to the same double, whole numbers keeping
/// ".0" (25 -> "25.0", the float nearest 29.97 widened -> "29.969999313354492"); "nan", "inf" and
/// "-inf" for the non-finite values.
std::string shortestDecimal(double value);

}  // namespace kestrin::core
