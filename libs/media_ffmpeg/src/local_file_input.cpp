#include "local_file_input.hpp"

#include <cerrno>
#include <limits>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

namespace kestrin::media_ffmpeg::detail {
namespace {

// FFmpeg's own file protocol reads in blocks of this size too.
constexpr int kBufferBytes = 32 * 1024;

std::string kindOf(mode_t mode)
{
    if (S_ISFIFO(mode)) {
        return "a FIFO";
    }
    if (S_ISCHR(mode)) {
        return "a character device";
    }
    if (S_ISBLK(mode)) {
        return "a block device";
    }
    if (S_ISSOCK(mode)) {
        return "a socket";
    }
    return "not a regular file";
}

}  // namespace

core::Expected<std::unique_ptr<LocalFileInput>> LocalFileInput::open(
    const std::filesystem::path& path, const Interrupt& interrupt)
{
    // O_NONBLOCK: opening a FIFO would otherwise wait for a writer, out of reach of any stop
    // request. It changes nothing for the regular files that get past the check below.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return ffmpegError(AVERROR(errno));
    }
    struct stat status
    {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        const int error = errno;
        const bool isDirectory = S_ISDIR(status.st_mode);
        const std::string kind = kindOf(status.st_mode);
        ::close(fd);
        if (isDirectory) {
            return ffmpegError(AVERROR(EISDIR));
        }
        if (status.st_mode == 0) {
            return ffmpegError(AVERROR(error));
        }
        return core::Error{kInputDomain,
                           kNotARegularFileCode,
                           "Is " + kind + ", not a video file; only regular files can be scanned"};
    }
    std::unique_ptr<LocalFileInput> input(new LocalFileInput(fd, interrupt));
    auto* buffer = static_cast<unsigned char*>(av_malloc(kBufferBytes));
    if (buffer != nullptr) {
        input->io_ = avio_alloc_context(buffer,
                                        kBufferBytes,
                                        0,
                                        input.get(),
                                        &LocalFileInput::read,
                                        nullptr,
                                        &LocalFileInput::seek);
    }
    if (input->io_ == nullptr) {
        av_free(buffer);
        return ffmpegError(AVERROR(ENOMEM));
    }
    return input;
}

LocalFileInput::LocalFileInput(int fd, const Interrupt& interrupt)
    : fd_(fd)
    , interrupt_(interrupt)
{}

LocalFileInput::~LocalFileInput()
{
    if (io_ != nullptr) {
        // FFmpeg may have replaced the buffer it was given; the context owns whichever it holds.
        av_freep(static_cast<void*>(&io_->buffer));
        avio_context_free(&io_);
    }
    ::close(fd_);
}

int LocalFileInput::read(void* opaque, std::uint8_t* buffer, int size)
{
    auto* input = static_cast<LocalFileInput*>(opaque);
    if (input->interrupt_.isAbandoned || input->interrupt_.stopToken.stop_requested()) {
        return AVERROR_EXIT;
    }
    for (;;) {
        const ssize_t count = ::read(input->fd_, buffer, static_cast<std::size_t>(size));
        if (count > 0) {
            return static_cast<int>(count);
        }
        if (count == 0) {
            return AVERROR_EOF;
        }
        if (errno != EINTR) {
            return AVERROR(errno);
        }
    }
}

std::int64_t LocalFileInput::seek(void* opaque, std::int64_t offset, int whence)
{
    auto* input = static_cast<LocalFileInput*>(opaque);
    if ((whence & AVSEEK_SIZE) != 0) {
        struct stat status
        {};
        return ::fstat(input->fd_, &status) == 0 ? status.st_size : AVERROR(errno);
    }
    const off_t position = ::lseek(input->fd_, offset, whence & ~AVSEEK_FORCE);
    return position < 0 ? AVERROR(errno) : position;
}

int refuseNestedOpen(AVFormatContext* /*context*/,
                     AVIOContext** /*io*/,
                     const char* /*url*/,
                     int /*flags*/,
                     AVDictionary** /*options*/)
{
    return AVERROR(EPERM);
}

bool isListOfOtherFiles(const AVInputFormat& format)
{
    const std::string_view name = format.name;
    return name == "concat" || name == "dash" || name == "hls" || name == "imf" || name == "sdp";
}

core::Error listRefused(const AVInputFormat& format)
{
    const std::string description = format.long_name != nullptr ? format.long_name : format.name;
    return core::Error{kInputDomain,
                       kOtherResourceCode,
                       "Is a list of other files or addresses (" + description
                           + "), not a video file; only the file itself is read"};
}

core::Error inputError(int code)
{
    if (code == AVERROR(EPERM)) {
        return core::Error{kInputDomain,
                           kOtherResourceCode,
                           "Names other files or addresses to read; only the file itself is read"};
    }
    return ffmpegError(code);
}

}  // namespace kestrin::media_ffmpeg::detail
