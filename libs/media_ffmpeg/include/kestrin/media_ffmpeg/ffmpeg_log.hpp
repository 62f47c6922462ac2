#pragma once

#include <kestrin/core/log.hpp>

#include <cstdint>

namespace kestrin::media_ffmpeg {

/// How much of FFmpeg's own log to pass on, most severe first (FFmpeg's AV_LOG_* levels).
enum class FFmpegLogLevel : std::uint8_t {
    quiet,
    panic,
    fatal,
    error,
    warning,
    info,
    verbose,
    debug
};

/// Sends FFmpeg's own log messages of `level` and more severe to `log`, one whole line per call
/// (FFmpeg may emit a line in pieces; the pieces are joined per thread first, and the line is
/// passed on without its newline, with FFmpeg's "[context @ address] " prefix).
///
/// Process-wide: FFmpeg has one log callback for the whole process, so the latest call wins for
/// every asset, reader and cursor, on every thread. Replaces the route installed before. The sink
/// is called on whichever thread FFmpeg logs from (decoder threads included), so it must be
/// thread-safe. A line still in pieces when the route changes is delivered to the new route.
void routeFFmpegLog(core::Log log, FFmpegLogLevel level = FFmpegLogLevel::error);

/// Installs the default route (standard error, error level) unless a route was installed before.
void ensureFFmpegLogRouted();

}  // namespace kestrin::media_ffmpeg
