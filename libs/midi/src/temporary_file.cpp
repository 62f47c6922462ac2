#include <kestrin/midi/temporary_file.hpp>

#include <cerrno>
#include <cstddef>
#include <system_error>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/types.h>
#include <unistd.h>

namespace kestrin::midi {

namespace {

core::Error posixError(int errorNumber, const std::string& what)
{
    return core::Error{
        "POSIX", errorNumber, what + ": " + std::generic_category().message(errorNumber) + "."};
}

std::string quoted(const std::filesystem::path& path)
{
    return "\"" + path.string() + "\"";
}

// Closes the descriptor on every path out; close() is retried neither here nor on EINTR, since
// Linux releases the descriptor even when close() reports an error.
class FileDescriptor
{
public:
    explicit FileDescriptor(int fd)
        : fd_(fd)
    {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    FileDescriptor(FileDescriptor&&) = delete;
    FileDescriptor& operator=(FileDescriptor&&) = delete;
    ~FileDescriptor()
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    [[nodiscard]] int get() const { return fd_; }
    /// Closes now and reports close()'s result: 0, or -1 with errno set.
    int close()
    {
        const int result = ::close(fd_);
        fd_ = -1;
        return result;
    }

private:
    int fd_;
};

}  // namespace

std::string uuidText(const std::array<std::uint8_t, 16>& randomBytes)
{
    std::array<std::uint8_t, 16> bytes = randomBytes;
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0FU) | 0x40U);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3FU) | 0x80U);  // variant 10xx
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text.push_back('-');
        }
        text.push_back(kDigits[bytes[i] >> 4U]);
        text.push_back(kDigits[bytes[i] & 0x0FU]);
    }
    return text;
}

core::Expected<std::string> randomUUIDText()
{
    std::array<std::uint8_t, 16> bytes{};
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t got = ::getrandom(bytes.data() + filled, bytes.size() - filled, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            const int error = errno;
            return posixError(error, "Could not draw random bytes for a file name");
        }
        filled += static_cast<std::size_t>(got);
    }
    return uuidText(bytes);
}

core::Expected<std::vector<std::uint8_t>> readWholeFile(const std::filesystem::path& path)
{
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) {
        const int error = errno;
        return posixError(error, "Could not open the file " + quoted(path));
    }
    std::vector<std::uint8_t> bytes;
    std::array<std::uint8_t, std::size_t{64} * 1024> buffer{};
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            const int error = errno;
            return posixError(error, "Could not read the file " + quoted(path));
        }
        if (count == 0) {
            return bytes;
        }
        bytes.insert(bytes.end(), buffer.begin(), buffer.begin() + count);
    }
}

}  // namespace kestrin::midi
