#pragma once

// Internal to the FFmpeg adapter: what a format context reads is the one local file the caller
// named, and nothing else.

#include "ffmpeg_support.hpp"

#include <kestrin/core/error.hpp>

#include <filesystem>
#include <memory>

namespace kestrin::media_ffmpeg::detail {

/// A regular file opened by us and read by FFmpeg through an AVIOContext of ours, so that the
/// path is never taken for a URL ("http://...", "concat:...", "pipe:0" are file names here).
///
/// open() refuses what is not a regular file before anything reads it: a directory with FFmpeg's
/// "Is a directory", a FIFO, device or socket with an error of domain kInputDomain that says what
/// it is (opening never blocks, even on a FIFO without a writer). Reads end with AVERROR_EXIT
/// once `interrupt` says so. Not copyable or movable: FFmpeg holds its address.
class LocalFileInput
{
public:
    static core::Expected<std::unique_ptr<LocalFileInput>> open(const std::filesystem::path& path,
                                                                const Interrupt& interrupt);
    ~LocalFileInput();
    LocalFileInput(const LocalFileInput&) = delete;
    LocalFileInput& operator=(const LocalFileInput&) = delete;
    LocalFileInput(LocalFileInput&&) = delete;
    LocalFileInput& operator=(LocalFileInput&&) = delete;

    /// The I/O context to put in AVFormatContext::pb (with AVFMT_FLAG_CUSTOM_IO); owned here.
    [[nodiscard]] AVIOContext* io() const { return io_; }

private:
    LocalFileInput(int fd, const Interrupt& interrupt);
    static int read(void* opaque, std::uint8_t* buffer, int size);
    static std::int64_t seek(void* opaque, std::int64_t offset, int whence);

    int fd_;
    const Interrupt& interrupt_;
    AVIOContext* io_ = nullptr;
};

/// The error domain of the adapter's refusals of an input.
inline constexpr const char* kInputDomain = "Input";
/// Code of kInputDomain: the path names a FIFO, a device or a socket.
inline constexpr int kNotARegularFileCode = 1;
/// Code of kInputDomain: the file names other files or addresses to read (a playlist, a
/// concatenation list), which are never opened.
inline constexpr int kOtherResourceCode = 2;

/// An AVFormatContext::io_open that opens nothing: demuxers that would read further files or
/// addresses named inside the input (HLS and DASH playlists, concatenation lists, external
/// references) fail with AVERROR(EPERM) instead.
int refuseNestedOpen(
    AVFormatContext* context, AVIOContext** io, const char* url, int flags, AVDictionary** options);

/// Whether `format` is one whose files only name other files or addresses to read: HLS and DASH
/// playlists, concatenation lists, IMF compositions, SDP session descriptions.
bool isListOfOtherFiles(const AVInputFormat& format);

/// The kOtherResourceCode error for a file of `format` (see isListOfOtherFiles).
core::Error listRefused(const AVInputFormat& format);

/// The error to report for FFmpeg's `code` when opening an input: kOtherResourceCode for the
/// refusals of refuseNestedOpen, else ffmpegError.
core::Error inputError(int code);

}  // namespace kestrin::media_ffmpeg::detail
