#include <kestrin/core/safe_file.hpp>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrin::core {
namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void put(const fs::path& path, const std::string& text, mode_t mode = 0644)
{
    std::ofstream(path, std::ios::binary) << text;
    ::chmod(path.c_str(), mode);
}

// Every entry under `dir` as "kind[:mode:owner:contents]" by its relative name, links not
// followed: what a write may change is compared whole, so a victim touched, a link replaced or a
// temporary file left behind all show.
std::map<std::string, std::string> snapshot(const fs::path& dir)
{
    std::map<std::string, std::string> entries;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(dir)) {
        struct stat status
        {};
        ::lstat(entry.path().c_str(), &status);
        std::string& text = entries[entry.path().lexically_relative(dir).string()];
        if (S_ISLNK(status.st_mode)) {
            text = "link->" + fs::read_symlink(entry.path()).string();
        } else if (S_ISREG(status.st_mode)) {
            text = "file:" + std::to_string(status.st_mode & 07777) + ":"
                   + std::to_string(status.st_uid) + ":" + contents(entry.path());
        } else {
            text = S_ISDIR(status.st_mode) ? "dir" : "special";
        }
    }
    return entries;
}

class SafeFile : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string name = (fs::temp_directory_path() / "kestrin-safe-file-XXXXXX").string();
        ASSERT_NE(::mkdtemp(name.data()), nullptr);
        dir_ = name;
        previousUmask_ = ::umask(022);
    }
    void TearDown() override
    {
        ::umask(previousUmask_);
        fs::remove_all(dir_);
    }

    fs::path dir_;
    mode_t previousUmask_ = 0;
};

TEST_F(SafeFile, WritesRegularFilesThroughLinksAndRefusesEverythingElse)
{
    const std::string bytes = "new bytes";
    struct Row
    {
        const char* what;
        std::function<void(const fs::path&)> setUp;
        const char* write;  ///< the path given, in the row's folder
        const char* lands;  ///< the file that then holds the bytes; null when refused
        std::string domain = {};
        std::int64_t code = 0;
        std::string mentions = {};
    };
    const Row rows[] = {
        {"a new file gets 0666 less the umask", [](const fs::path&) {}, "new.mid", "new.mid"},
        {"an existing file keeps its permissions and owner",
         [](const fs::path& d) {
             put(d / "old.mid", "old", 0640);
             // Only root can give a file away; otherwise the owner is the writer either way.
             if (::chown((d / "old.mid").c_str(), 4321, 4321) != 0) {
             }
         },
         "old.mid",
         "old.mid"},
        {"a link is written through and stays a link",
         [](const fs::path& d) {
             put(d / "victim", "old", 0600);
             fs::create_symlink("victim", d / "link.mid");
         },
         "link.mid",
         "victim"},
        {"a chain of relative links, the last dangling, creates its end",
         [](const fs::path& d) {
             fs::create_directory(d / "sub");
             fs::create_symlink("sub/hop", d / "first.mid");
             fs::create_symlink("../end.mid", d / "sub" / "hop");
         },
         "first.mid",
         "end.mid"},
        {"the old fixed side name planted as a link is left alone",
         [](const fs::path& d) {
             put(d / "victim", "old");
             fs::create_symlink("victim", d / "out.mid.part");
         },
         "out.mid",
         "out.mid"},
        {"a directory",
         [](const fs::path& d) { fs::create_directory(d / "dir.mid"); },
         "dir.mid",
         nullptr,
         "File",
         kIsDirectoryCode,
         "it is a directory"},
        {"a FIFO",
         [](const fs::path& d) { ::mkfifo((d / "fifo.mid").c_str(), 0644); },
         "fifo.mid",
         nullptr,
         "File",
         kNotRegularFileCode,
         "it is a FIFO, not a regular file"},
        {"a character device",
         [](const fs::path& d) {
             // A node of our own where we may make one (root); otherwise a link to /dev/null,
             // which a writer without root could not replace even if it tried.
             if (::mknod((d / "null.mid").c_str(), S_IFCHR | 0666, makedev(1, 3)) != 0) {
                 fs::create_symlink("/dev/null", d / "null.mid");
             }
         },
         "null.mid",
         nullptr,
         "File",
         kNotRegularFileCode,
         "a character device"},
        {"a loop of links",
         [](const fs::path& d) {
             fs::create_symlink("b.mid", d / "a.mid");
             fs::create_symlink("a.mid", d / "b.mid");
         },
         "a.mid",
         nullptr,
         "File",
         kTooManyLinksCode,
         "too many levels"},
        {"a missing directory",
         [](const fs::path&) {},
         "missing/new.mid",
         nullptr,
         "POSIX",
         ENOENT,
         "No such file or directory"},
    };
    int index = 0;
    for (const Row& row : rows) {
        const fs::path folder = dir_ / std::to_string(index++);
        fs::create_directory(folder);
        row.setUp(folder);
        // Held open so that a writer that wrongly opened the FIFO would not block.
        const int fifoReader = ::open((folder / "fifo.mid").c_str(), O_RDONLY | O_NONBLOCK);
        std::map<std::string, std::string> expected = snapshot(folder);

        const Status status = writeFileSafely(folder / row.write, bytes);
        if (fifoReader >= 0) {
            ::close(fifoReader);
        }
        if (row.lands != nullptr) {
            ASSERT_TRUE(status.ok()) << row.what << ": " << status.error().description;
            const std::string before = expected[row.lands];
            // The mode and owner of the file replaced, or 0644 (0666 less the umask) and ours.
            const std::string kept = before.empty()
                                         ? "file:420:" + std::to_string(::geteuid()) + ":"
                                         : before.substr(0, before.rfind(':') + 1);
            expected[row.lands] = kept + bytes;
            const Expected<WriteTarget> target = resolveWriteTarget(folder / row.write);
            ASSERT_TRUE(target.hasValue()) << row.what;
            EXPECT_EQ(target->path, fs::canonical(folder / row.lands)) << row.what;
        } else {
            ASSERT_FALSE(status.ok()) << row.what;
            EXPECT_EQ(status.error().domain, row.domain) << row.what;
            EXPECT_EQ(status.error().code, row.code) << row.what;
            EXPECT_NE(status.error().description.find(row.mentions), std::string::npos)
                << row.what << ": " << status.error().description;
            EXPECT_NE(status.error().description.find(row.write), std::string::npos)
                << row.what << ": " << status.error().description;
        }
        EXPECT_EQ(snapshot(folder), expected) << row.what;
    }
}

// A disk that fills up during the write: the error is reported, the old file is whole and no
// temporary file is left. The disk is a 64 KiB tmpfs mounted in a mount namespace of a child
// process; where the system allows no namespace, the child's file size limit (RLIMIT_FSIZE, with
// SIGXFSZ ignored so that write() fails with EFBIG) stands in for the full disk.
TEST_F(SafeFile, FullDiskKeepsTheOldFile)
{
    const fs::path disk = dir_ / "disk";
    fs::create_directory(disk);
    int report[2];
    ASSERT_EQ(::pipe(report), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(report[0]);
        const auto say = [&](const std::string& text) {
            if (::write(report[1], text.data(), text.size()) < 0) {
                ::_exit(3);
            }
        };
        const auto ownNamespace = [] {
            if (::unshare(CLONE_NEWNS) == 0) {
                return true;
            }
            const std::string uid = "0 " + std::to_string(::geteuid()) + " 1";
            const std::string gid = "0 " + std::to_string(::getegid()) + " 1";
            if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
                return false;
            }
            std::ofstream("/proc/self/setgroups") << "deny";
            std::ofstream("/proc/self/uid_map") << uid;
            std::ofstream("/proc/self/gid_map") << gid;
            return true;
        };
        // Private first, so the mount never shows outside the child.
        const bool isTmpfs = ownNamespace()
                             && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0
                             && ::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k") == 0;
        if (!isTmpfs) {
            const rlimit limit{64 * 1024, 64 * 1024};
            ::signal(SIGXFSZ, SIG_IGN);
            ::setrlimit(RLIMIT_FSIZE, &limit);
        }
        say(isTmpfs ? "tmpfs\n" : "file size limit\n");
        const fs::path target = disk / "markers.mid";
        if (!writeFileSafely(target, std::string(1000, 'o')).ok()) {
            say("the small write failed\n");
            ::_exit(1);
        }
        const Status status = writeFileSafely(target, std::string(256 * 1024, 'n'));
        const int expected = isTmpfs ? ENOSPC : EFBIG;
        if (status.ok() || status.error().code != expected) {
            say("the large write gave: " + (status.ok() ? "success" : status.error().description));
        }
        if (contents(target) != std::string(1000, 'o')) {
            say("the old file changed\n");
        }
        if (std::distance(fs::directory_iterator(disk), fs::directory_iterator()) != 1) {
            say("a temporary file is left\n");
        }
        ::_exit(0);
    }
    ::close(report[1]);
    std::string said;
    char buffer[256];
    for (ssize_t count; (count = ::read(report[0], buffer, sizeof buffer)) > 0;) {
        said.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(report[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << said;
    const std::string how = said.substr(0, said.find('\n') + 1);
    EXPECT_EQ(said, how) << "(a full disk made by " << how << ")";
}

}  // namespace
}  // namespace kestrin::core
