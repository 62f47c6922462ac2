#include <kestrin/media_ffmpeg/ffmpeg_log.hpp>

extern "C" {
#include <libavutil/log.h>
}

#include <array>
#include <atomic>
#include <cstdarg>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace kestrin::media_ffmpeg {

namespace {

// FFmpeg's log callback is a plain function shared by the whole process, so the route it follows
// is process-wide state too. Guarded by routeMutex.
std::mutex routeMutex;
std::optional<core::Log> routeLog;
// Read on every message without the lock; written under it.
std::atomic<int> routeLevel{AV_LOG_ERROR};

int avLevelOf(FFmpegLogLevel level)
{
    switch (level) {
        case FFmpegLogLevel::quiet:
            return AV_LOG_QUIET;
        case FFmpegLogLevel::panic:
            return AV_LOG_PANIC;
        case FFmpegLogLevel::fatal:
            return AV_LOG_FATAL;
        case FFmpegLogLevel::error:
            return AV_LOG_ERROR;
        case FFmpegLogLevel::warning:
            return AV_LOG_WARNING;
        case FFmpegLogLevel::info:
            return AV_LOG_INFO;
        case FFmpegLogLevel::verbose:
            return AV_LOG_VERBOSE;
        case FFmpegLogLevel::debug:
            return AV_LOG_DEBUG;
    }
    return AV_LOG_ERROR;
}

void deliver(std::string_view line)
{
    std::optional<core::Log> log;
    {
        const std::lock_guard lock(routeMutex);
        log = routeLog;
    }
    if (log) {
        log->line(line);
    }
}

void logCallback(void* context, int level, const char* format, va_list arguments)
{
    if (level > routeLevel.load(std::memory_order_relaxed)) {
        return;
    }
    // FFmpeg may write one line in several calls; each thread assembles its own lines, and the
    // prefix is printed only at the start of a line.
    thread_local std::string pending;
    thread_local int printPrefix = 1;
    std::array<char, 1024> piece{};
    va_list copy;
    va_copy(copy, arguments);
    const int length = av_log_format_line2(
        context, level, format, copy, piece.data(), static_cast<int>(piece.size()), &printPrefix);
    va_end(copy);
    if (length < 0) {
        return;
    }
    if (static_cast<std::size_t>(length) < piece.size()) {
        pending.append(piece.data(), static_cast<std::size_t>(length));
    } else {
        std::string whole(static_cast<std::size_t>(length) + 1, '\0');
        int prefix = pending.empty() ? 1 : 0;
        va_copy(copy, arguments);
        av_log_format_line2(
            context, level, format, copy, whole.data(), static_cast<int>(whole.size()), &prefix);
        va_end(copy);
        whole.resize(static_cast<std::size_t>(length));
        pending += whole;
    }
    for (std::size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
        deliver(std::string_view(pending).substr(0, end));
        pending.erase(0, end + 1);
    }
}

// Caller holds routeMutex.
void install(core::Log log, FFmpegLogLevel level)
{
    routeLog = std::move(log);
    routeLevel.store(avLevelOf(level), std::memory_order_relaxed);
    av_log_set_callback(&logCallback);
}

}  // namespace

void routeFFmpegLog(core::Log log, FFmpegLogLevel level)
{
    const std::lock_guard lock(routeMutex);
    install(std::move(log), level);
}

void ensureFFmpegLogRouted()
{
    const std::lock_guard lock(routeMutex);
    if (!routeLog) {
        install(core::Log(), FFmpegLogLevel::error);
    }
}

}  // namespace kestrin::media_ffmpeg
