#pragma once

// Writing the files a user asked for without ever losing one: the one writer of both front ends.
//
// Rules, in the order they are applied to a path:
//  - symbolic links are followed, link by link, to the file they lead to; that file is written
//    (a dangling link creates the file it names), the links stay as they are;
//  - a directory, and anything that is not a regular file (a character or block device such as a
//    terminal or /dev/full, a FIFO, a socket), is refused and never opened;
//  - a regular file, new or existing, is replaced atomically: a reader sees the old file or the
//    whole new one, never a part. The bytes go to a temporary file of a random name in the same
//    directory, created exclusively (so a link planted under that name is never followed),
//    flushed to disk, given the old file's permission bits (a new file gets 0666 less the
//    umask), then renamed over the target, and the directory is flushed;
//  - on any failure the temporary file is removed and the old file is untouched.
//
// Errors: a refusal has the domain "File" and one of the codes below; a failure of the operating
// system has the domain "POSIX" and the errno value as code. Every description names the path as
// the caller gave it (and where a link led), and for the operating system's failures its text.

#include <kestrin/core/error.hpp>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string_view>

namespace kestrin::core {

/// Code of the "File" error for a path that is, or leads to, a directory.
inline constexpr std::int64_t kIsDirectoryCode = 1;
/// Code of the "File" error for a path that is, or leads to, a device, a FIFO or a socket.
inline constexpr std::int64_t kNotRegularFileCode = 2;
/// Code of the "File" error for a chain of more than kMaxLinkHops symbolic links (or a loop).
inline constexpr std::int64_t kTooManyLinksCode = 3;
/// Code of the "File" error for a target that changed kind while it was being written.
inline constexpr std::int64_t kChangedCode = 4;

/// The longest chain of symbolic links that is followed, as the kernel's own limit.
inline constexpr int kMaxLinkHops = 40;

/// Which file a path names: its device and inode numbers. Two paths name the same file (through
/// links, hard links included) exactly when their identities are equal.
struct FileIdentity
{
    std::uint64_t device = 0;
    std::uint64_t inode = 0;

    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

/// The identity of the file `path` leads to (through symbolic links); absent when there is none
/// or it cannot be examined.
[[nodiscard]] std::optional<FileIdentity> fileIdentity(const std::filesystem::path& path);

/// Where a write of a path lands.
struct WriteTarget
{
    /// The file that is created or replaced: the path with its symbolic links followed, its
    /// directory in canonical form as far as that directory exists. Two paths that land on the
    /// same file have equal `path`s (or, for existing files, equal `existing` identities).
    std::filesystem::path path;
    /// The identity of the regular file there now; absent when the write creates it.
    std::optional<FileIdentity> existing;
};

/// Where writeFileSafely(`path`, ...) would write, without writing anything. Fails as
/// writeFileSafely does before it creates a file: kIsDirectoryCode, kNotRegularFileCode,
/// kTooManyLinksCode, or a "POSIX" error when a link or the file cannot be examined (a missing
/// directory is no failure here; the write reports it).
[[nodiscard]] Expected<WriteTarget> resolveWriteTarget(const std::filesystem::path& path);

/// Writes `bytes` as the whole contents of the file `path` leads to, by the rules at the top of
/// this header. The old file's owner and group are kept as far as the system allows. A file with
/// other hard links is replaced under this name only: the other names keep the old contents.
///
/// Outcomes:
///  - success: the file holds exactly `bytes` and is flushed to disk, with its directory entry;
///  - refused (domain "File"): a directory, a special file, too many links, or the target
///    changed kind in between; nothing was created or changed;
///  - failed (domain "POSIX"): the directory is missing or not writable, the disk is full, a
///    write, flush or rename failed; the temporary file is gone and the old file unchanged. Only
///    a failure to flush the directory after the rename leaves the new file in place.
/// Blocks the calling thread for the disk; never throws but for a failed allocation.
[[nodiscard]] Status writeFileSafely(const std::filesystem::path& path,
                                     std::span<const std::uint8_t> bytes);

/// writeFileSafely for text: its bytes as they are.
[[nodiscard]] Status writeFileSafely(const std::filesystem::path& path, std::string_view text);

}  // namespace kestrin::core
