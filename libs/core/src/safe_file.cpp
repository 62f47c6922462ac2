#include <kestrin/core/safe_file.hpp>

#include <array>
#include <cerrno>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace kestrin::core {

namespace {

namespace fs = std::filesystem;

std::string quoted(const fs::path& path)
{
    return "\"" + path.string() + "\"";
}

Error posixError(int errorNumber, const std::string& what)
{
    return {"POSIX", errorNumber, what + ": " + std::generic_category().message(errorNumber) + "."};
}

// "Cannot write "PATH"" and, when links led elsewhere, where they led.
std::string cannotWrite(const fs::path& given, const fs::path& reached)
{
    std::string text = "Cannot write " + quoted(given);
    if (reached != given) {
        text += " (a link to " + quoted(reached) + ")";
    }
    return text;
}

// The refusal for a file of `mode` that is not to be written; none for a regular file.
std::optional<Error> refusal(mode_t mode, const fs::path& given, const fs::path& reached)
{
    if (S_ISREG(mode)) {
        return std::nullopt;
    }
    if (S_ISDIR(mode)) {
        return Error{
            "File", kIsDirectoryCode, cannotWrite(given, reached) + ": it is a directory."};
    }
    const char* kind = S_ISCHR(mode)    ? "a character device"
                       : S_ISBLK(mode)  ? "a block device"
                       : S_ISFIFO(mode) ? "a FIFO"
                       : S_ISSOCK(mode) ? "a socket"
                                        : "a special file";
    return Error{"File",
                 kNotRegularFileCode,
                 cannotWrite(given, reached) + ": it is " + kind + ", not a regular file."};
}

// Closes the descriptor on every path out. close() is not retried on EINTR: Linux releases the
// descriptor even when close() reports an error.
class Descriptor
{
public:
    explicit Descriptor(int fd)
        : fd_(fd)
    {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&&) = delete;
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor()
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    [[nodiscard]] int get() const { return fd_; }
    /// Closes now: 0, or -1 with errno set.
    int close() { return ::close(std::exchange(fd_, -1)); }

private:
    int fd_;
};

// A name for the temporary file that no one can guess ahead: 64 random bits from the kernel.
Expected<std::string> temporaryName()
{
    std::array<std::uint8_t, 8> bytes{};
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
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string name = ".kestrin-";
    for (const std::uint8_t byte : bytes) {
        name += kDigits[byte >> 4U];
        name += kDigits[byte & 0xFU];
    }
    return name + ".tmp";
}

// `directory` in canonical form as far as it exists, so that two spellings of one place compare
// equal; as given when even that fails (a directory that cannot be searched).
fs::path canonicalDirectory(const fs::path& directory)
{
    const fs::path given = directory.empty() ? fs::path(".") : directory;
    std::error_code error;
    fs::path canonical = fs::weakly_canonical(given, error);
    return error ? given : canonical;
}

// resolveWriteTarget, also giving the path the links led to (before it is made canonical).
Expected<WriteTarget> resolveTarget(const fs::path& path, fs::path& reached)
{
    reached = path;
    for (int hops = 0;; ++hops) {
        struct stat status
        {};
        if (::lstat(reached.c_str(), &status) != 0) {
            const int error = errno;
            if (error != ENOENT) {
                return posixError(error, cannotWrite(path, reached));
            }
            // Nothing there yet (also where a dangling link points): the write creates it.
            return WriteTarget{canonicalDirectory(reached.parent_path()) / reached.filename(),
                               std::nullopt};
        }
        if (!S_ISLNK(status.st_mode)) {
            if (std::optional<Error> refused = refusal(status.st_mode, path, reached)) {
                return *refused;
            }
            return WriteTarget{canonicalDirectory(reached.parent_path()) / reached.filename(),
                               FileIdentity{status.st_dev, status.st_ino}};
        }
        if (hops == kMaxLinkHops) {
            return Error{"File",
                         kTooManyLinksCode,
                         cannotWrite(path, reached) + ": too many levels of symbolic links."};
        }
        std::error_code error;
        const fs::path link = fs::read_symlink(reached, error);
        if (error) {
            return posixError(error.value(), cannotWrite(path, reached));
        }
        // A relative link is read from the directory the link is in.
        reached = link.is_absolute() ? link : reached.parent_path() / link;
    }
}

}  // namespace

std::optional<FileIdentity> fileIdentity(const fs::path& path)
{
    struct stat status
    {};
    if (::stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return FileIdentity{status.st_dev, status.st_ino};
}

Expected<WriteTarget> resolveWriteTarget(const fs::path& path)
{
    fs::path reached;
    return resolveTarget(path, reached);
}

Status writeFileSafely(const fs::path& path, std::span<const std::uint8_t> bytes)
{
    fs::path reached;
    const Expected<WriteTarget> target = resolveTarget(path, reached);
    if (!target) {
        return target.error();
    }
    const fs::path directory = target->path.parent_path();
    const fs::path name = target->path.filename();
    const std::string failed = cannotWrite(path, reached);

    // Everything from here on is relative to the directory as opened, so a directory renamed or
    // replaced meanwhile cannot send the file elsewhere.
    const Descriptor folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() < 0) {
        const int error = errno;
        return posixError(error, failed + ": the directory " + quoted(directory));
    }
    struct stat old
    {};
    bool isReplacing = false;
    if (::fstatat(folder.get(), name.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0) {
        if (!S_ISREG(old.st_mode)) {
            return Error{"File", kChangedCode, failed + ": it changed while being written."};
        }
        isReplacing = true;
    } else if (errno != ENOENT) {
        const int error = errno;
        return posixError(error, failed);
    }

    // O_EXCL never opens an existing name, a planted link included; another random name is
    // drawn in the unlikely case that one is taken. A new file is created with 0666, which the
    // umask reduces; a replacement gets the old permission bits below.
    std::string temporary;
    int fd = -1;
    for (int attempt = 0; fd < 0 && attempt < 16; ++attempt) {
        Expected<std::string> drawn = temporaryName();
        if (!drawn) {
            return drawn.error();
        }
        temporary = std::move(*drawn);
        fd = ::openat(folder.get(),
                      temporary.c_str(),
                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                      isReplacing ? 0600 : 0666);
        if (fd < 0 && errno != EEXIST) {
            const int error = errno;
            return posixError(error, failed + ": could not create a temporary file");
        }
    }
    if (fd < 0) {
        return posixError(EEXIST, failed + ": could not create a temporary file");
    }
    Descriptor file(fd);
    // Every failure from here removes the temporary file. Callers take errno first, as building
    // the description may allocate and so change it.
    const auto fail = [&](int errorNumber, const std::string& step) {
        ::unlinkat(folder.get(), temporary.c_str(), 0);
        return Status(posixError(errorNumber, failed + ": " + step));
    };

    if (isReplacing) {
        // Set-user and set-group bits are not carried over to a data file.
        if (::fchmod(file.get(), old.st_mode & 0777) != 0) {
            const int error = errno;
            return fail(error, "could not set the permissions");
        }
        if ((old.st_uid != ::geteuid() || old.st_gid != ::getegid())
            && ::fchown(file.get(), old.st_uid, old.st_gid) != 0) {
            // Only a privileged writer may give a file away; the new one stays the writer's.
        }
    }
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = ::write(file.get(), bytes.data() + written, bytes.size() - written);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            const int error = errno;
            return fail(error, "writing failed");
        }
        written += static_cast<std::size_t>(count);
    }
    if (::fsync(file.get()) != 0) {
        const int error = errno;
        return fail(error, "flushing to disk failed");
    }
    if (file.close() != 0) {
        const int error = errno;
        return fail(error, "closing failed");
    }
    if (::renameat(folder.get(), temporary.c_str(), folder.get(), name.c_str()) != 0) {
        const int error = errno;
        return fail(error, "could not replace the file");
    }
    // Makes the rename itself durable. A file system that cannot flush a directory says EINVAL;
    // there is nothing more to do on it.
    if (::fsync(folder.get()) != 0 && errno != EINVAL) {
        const int error = errno;
        return posixError(error,
                          failed + ": the file is written, but flushing its directory failed");
    }
    return {};
}

Status writeFileSafely(const fs::path& path, std::string_view text)
{
    return writeFileSafely(
        path, std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

}  // namespace kestrin::core
