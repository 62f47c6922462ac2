#pragma once

#include <kestrin/core/scan_mode.hpp>

#include <variant>

namespace kestrin::core {

/// One event of a scan's event stream: either how much of the scan is done, or the mode the scan
/// chose. Consumers switch on kind(); there is deliberately no equality.
class ProgressEvent
{
public:
    enum class Kind : std::uint8_t { progress, mode };

    /// `fraction` of the scan done, from 0 to 1.
    static ProgressEvent progress(double fraction) { return ProgressEvent(fraction); }
    /// The scan chose `mode`.
    static ProgressEvent mode(ScanMode mode) { return ProgressEvent(mode); }

    [[nodiscard]] Kind kind() const { return payload_.index() == 0 ? Kind::progress : Kind::mode; }
    /// The fraction done; only for Kind::progress.
    [[nodiscard]] double fraction() const { return std::get<double>(payload_); }
    /// The chosen mode; only for Kind::mode.
    [[nodiscard]] ScanMode scanMode() const { return std::get<ScanMode>(payload_); }

private:
    explicit ProgressEvent(double fraction)
        : payload_(fraction)
    {}
    explicit ProgressEvent(ScanMode mode)
        : payload_(mode)
    {}

    std::variant<double, ScanMode> payload_;
};

}  // namespace kestrin::core
