// Runs the built kestrin-scan on the test clips, copied into a fresh directory per test.

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

struct Outcome
{
    int status = -1;  ///< the exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
};

// Runs kestrin-scan with `args`; `onError` sees the standard error read so far, with the pid;
// `inChild` runs in the child before the tool starts (to change its directory or its output).
Outcome scan(const std::vector<std::string>& args,
             const std::function<void(pid_t, const std::string&)>& onError = {},
             const std::function<void()>& inChild = {})
{
    std::vector<char*> argv = {const_cast<char*>(KESTRIN_SCAN_BINARY)};
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    int out[2];
    int err[2];
    if (pipe(out) != 0 || pipe(err) != 0) {
        return {};
    }
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        close(out[0]);
        close(err[0]);
        if (inChild) {
            inChild();
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    Outcome outcome;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string* texts[2] = {&outcome.out, &outcome.err};
    for (int open = 2; open > 0;) {
        poll(fds, 2, -1);
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char buffer[4096];
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            } else {
                texts[i]->append(buffer, static_cast<std::size_t>(n));
                if (i == 1 && onError) {
                    onError(pid, outcome.err);
                }
            }
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        result.push_back(line);
    }
    return result;
}

std::string contents(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::vector<fs::path> midiFiles(const fs::path& dir)
{
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(dir)) {
        if (entry.path().extension() != ".mp4" && entry.path().extension() != ".bin"
            && entry.path().extension() != ".m4a") {
            found.push_back(entry.path().filename());
        }
    }
    return found;
}

class CliBinary : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string name = (fs::temp_directory_path() / "kestrin-cli-XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        dir_ = name;
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string clip(const std::string& name) const
    {
        fs::copy_file(
            fs::path(KESTRIN_CLIPS_DIR) / name, dir_ / name, fs::copy_options::overwrite_existing);
        return (dir_ / name).string();
    }

    static void ffmpeg(const std::string& args)
    {
        ASSERT_EQ(std::system(("ffmpeg -nostdin -hide_banner -loglevel error -y " + args).c_str()),
                  0);
    }

    fs::path dir_;
};

TEST_F(CliBinary, WorkedExampleMatchesTheGoldenFile)
{
    // Two shots of 100 and 50 frames at 25 fps, keyframes at 0 and at the cut.
    const std::string video = (dir_ / "worked.mp4").string();
    ffmpeg(
        "-filter_complex \"testsrc2=s=320x180:r=25,trim=end_frame=100,setpts=PTS-STARTPTS[a];"
        "smptebars=s=320x180:r=25,trim=end_frame=50,setpts=PTS-STARTPTS[b];"
        "[a][b]concat=n=2:v=1:a=0,format=yuv420p[v]\" -map [v] -c:v libx264 -preset veryfast "
        "-x264-params keyint=10000:min-keyint=1:scenecut=0 "
        "-force_key_frames \"expr:eq(n,0)+eq(n,100)\" "
        + video);
    const fs::path cutList = dir_ / "worked.tsv";
    const Outcome run = scan({"--session-start",
                              "00:00:00:00",
                              "--video-start",
                              "00:00:10:00",
                              "--cut-list",
                              cutList.string(),
                              video});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(run.out.starts_with(video + ": 1 cut ("));
    EXPECT_TRUE(run.out.ends_with(") -> " + (dir_ / "worked_Markers.mid").string() + ", "
                                  + cutList.string() + "\n"));
    EXPECT_EQ(contents(dir_ / "worked_Markers.mid"),
              contents(KESTRIN_GOLDEN_DATA "/worked_example_25fps_workstation.mid"));
    EXPECT_EQ(contents(cutList),
              "# Kestrin cut list 1\n# video\tworked.mp4\n# frame rate\t25/1\n"
              "# drop-frame\tno\n# session start\t00:00:00:00\n# video start\t00:00:10:00\n"
              "# video start frame\t250\nframe\tseconds\ttimecode\tname\n"
              "100\t4.000000\t00:00:14:00\tCut 1\n");

    // The plain layout with blank names is the first layout, byte for byte.
    const fs::path plain = dir_ / "plain.mid";
    ASSERT_EQ(scan({"-q",
                    "--video-start",
                    "1000",
                    "--plain-midi",
                    "--marker-name",
                    " ",
                    "-o",
                    plain.string(),
                    video})
                  .status,
              0);
    EXPECT_EQ(contents(plain), contents(KESTRIN_GOLDEN_DATA "/worked_example_25fps.mid"));

    // To standard output, a pipe here, with the report on standard error.
    const Outcome piped = scan({"--video-start", "1000", "-o", "-", video});
    ASSERT_EQ(piped.status, 0) << piped.err;
    EXPECT_EQ(piped.out, contents(KESTRIN_GOLDEN_DATA "/worked_example_25fps_workstation.mid"));
    EXPECT_TRUE(piped.err.ends_with(") -> standard output\n")) << piped.err;

    // A text per cut: the cut's number and its timecode (10 s + 100 frames).
    const fs::path named = dir_ / "named.mid";
    ASSERT_EQ(scan({"-q",
                    "--video-start",
                    "1000",
                    "--marker-name",
                    "{n}@{tc}",
                    "-o",
                    named.string(),
                    video})
                  .status,
              0);
    EXPECT_NE(contents(named).find("1@00:00:14:00"), std::string::npos);
}

TEST_F(CliBinary, JsonListsTheCuts)
{
    const std::string video = clip("h264-cuts.mp4");
    const Outcome run = scan({"--json", "--no-midi", video});
    ASSERT_EQ(run.status, 0) << run.err;
    ASSERT_EQ(lines(run.out).size(), 1U) << run.out;
    EXPECT_NE(run.out.find(R"("mode":"trustedKeyframes","nominalFPS":25,"dropFrame":false)"),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find(R"("midi":null,"cutList":null,"warnings":[]})"), std::string::npos)
        << run.out;

    std::string expected;
    for (const std::string& line : lines(contents(fs::path(KESTRIN_CLIPS_DIR) / "cuts.txt"))) {
        if (line.starts_with("h264-cuts.mp4 25 ")) {
            expected = line.substr(17);
        }
    }
    std::string found;
    const std::regex frame(R"("frameIndex":(\d+))");
    for (std::sregex_iterator it(run.out.begin(), run.out.end(), frame), end; it != end; ++it) {
        found += (found.empty() ? "" : " ") + (*it)[1].str();
    }
    EXPECT_EQ(found, expected);
    EXPECT_TRUE(midiFiles(dir_).empty());
}

// Files that open but cannot be read whole: the scan goes through with the cuts of what it could
// read, and says what that was.
TEST_F(CliBinary, DamagedInputsWarnKeepTheirCutsAndExitFour)
{
    struct Row
    {
        std::string clip;
        // What the warning says after the file's name.
        std::string warning;
        bool isCutShort = false;
        bool hasMarkerFile = true;
        // Where the file says the video ends.
        std::string declaredEnd = "01:00:13:06";
    };
    const std::vector<Row> rows = {
        {"truncated.mp4", "only 01:00:00:00-01:00:07:", true},
        {"truncated-start.mp4", "only 01:00:00:00-01:00:00:", true, false},  // no cut left
        {"truncated.mkv", "only 01:00:00:00-01:00:0", true},
        {"truncated.avi", "only 01:00:00:00-01:00:00:", true, false, "01:00:03:23"},
        {"damaged.mkv", "damaged frame", false, true, "01:00:03:23"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.clip);
        const std::string video = clip(row.clip);
        const fs::path markers = dir_ / (fs::path(video).stem().string() + "_Markers.mid");
        fs::remove(markers);  // truncated.mp4 and truncated.avi share one
        const Outcome human = scan({video});
        EXPECT_EQ(human.status, 4) << human.err;
        EXPECT_TRUE(human.err.starts_with("kestrin-scan: warning: " + video + ": ")) << human.err;
        EXPECT_NE(human.err.find(row.warning), std::string::npos) << human.err;
        if (row.isCutShort) {
            EXPECT_NE(human.err.find(" of 01:00:00:00-" + row.declaredEnd + " could be read"),
                      std::string::npos)
                << human.err;
        }
        EXPECT_TRUE(human.err.ends_with("; cuts may be missing\n")) << human.err;
        EXPECT_EQ(fs::exists(markers), row.hasMarkerFile);

        const Outcome json = scan({"--json", "--no-midi", video});
        EXPECT_EQ(json.status, 4);
        EXPECT_NE(
            json.out.find(std::string(R"("cutShort":)") + (row.isCutShort ? "true" : "false")),
            std::string::npos)
            << json.out;
        EXPECT_NE(json.out.find(R"("declared":{"until":")" + row.declaredEnd + "\""),
                  std::string::npos)
            << json.out;
    }

    // The intact part of a damaged file keeps every cut.
    const Outcome damaged = scan({"--json", "--no-midi", clip("damaged.mkv")});
    std::string found;
    const std::regex frame(R"("frameIndex":(\d+))");
    for (std::sregex_iterator it(damaged.out.begin(), damaged.out.end(), frame), end; it != end;
         ++it) {
        found += " " + (*it)[1].str();
    }
    EXPECT_EQ(found, " 22 49 73");

    // A failure outranks damage; damage outranks success.
    EXPECT_EQ(scan({"-q", "--no-midi", clip("damaged.mkv"), clip("empty.mp4")}).status, 1);
    EXPECT_EQ(scan({"-q", "--no-midi", clip("h264-cuts.mp4"), clip("damaged.mkv")}).status, 4);
}

TEST_F(CliBinary, BadInputsFailAloneAndLeaveNoFile)
{
    // A FIFO with no writer is refused at once instead of waiting for one (a hang).
    const std::string fifo = (dir_ / "fifo.mp4").string();
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::vector<std::string> bad = {(dir_ / "missing.mp4").string(),
                                          clip("empty.mp4"),
                                          clip("random.bin"),
                                          clip("audio.m4a"),
                                          fifo};
    std::vector<std::string> args = bad;
    args.insert(args.begin() + 2, clip("h264-cuts.mp4"));
    const Outcome run = scan(args);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(lines(run.err).size(), bad.size()) << run.err;
    for (const std::string& file : bad) {
        EXPECT_NE(run.err.find("kestrin-scan: " + file + ": "), std::string::npos) << file;
    }
    EXPECT_NE(run.err.find("No such file or directory"), std::string::npos);
    EXPECT_NE(run.err.find("The file has no video track."), std::string::npos);
    EXPECT_NE(run.err.find("Is a FIFO, not a video file"), std::string::npos);
    std::vector<fs::path> written = midiFiles(dir_);
    std::erase(written, fs::path("fifo.mp4"));
    EXPECT_EQ(written, std::vector<fs::path>{"h264-cuts_Markers.mid"});

    // A name that is not UTF-8 and holds an escape sequence: valid JSON, a harmless line.
    const std::string odd = (dir_ / "\xff\x1b[2J.mp4").string();
    const Outcome json = scan({"--json", odd});
    EXPECT_NE(json.out.find(R"(\ufffd\u001b[2J.mp4","error":)"), std::string::npos) << json.out;
    const Outcome human = scan({odd});
    EXPECT_NE(human.err.find(R"(\xff\x1b[2J.mp4: )"), std::string::npos) << human.err;

    // An output that cannot be written is a failure of that video, with no file left.
    const Outcome unwritable = scan({"-o", (dir_ / "no-dir" / "x.mid").string(), args[2]});
    EXPECT_EQ(unwritable.status, 1);
    EXPECT_EQ(lines(unwritable.err).size(), 1U) << unwritable.err;

    // A counting the video's rate (25 fps) does not have fails that video instead of doing nothing.
    const Outcome counted = scan({"--drop-frame", "--no-midi", args[2]});
    EXPECT_EQ(counted.status, 1);
    EXPECT_NE(counted.err.find(": --drop-frame: only 29.97 and 59.94 have drop-frame counting, "
                               "not this video's 25 fps"),
              std::string::npos)
        << counted.err;
}

// What the folder holds, links not followed: regular files by their first four bytes.
std::map<std::string, std::string> listing(const fs::path& dir)
{
    std::map<std::string, std::string> entries;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir)) {
        const fs::file_status status = entry.symlink_status();
        entries[entry.path().filename().string()] =
            fs::is_symlink(status)        ? "link->" + fs::read_symlink(entry.path()).string()
            : fs::is_regular_file(status) ? "file:" + contents(entry.path()).substr(0, 4)
            : fs::is_directory(status)    ? "dir"
                                          : "special";
    }
    return entries;
}

// Outputs the tool refuses before it scans (status 2, nothing written) and two it writes safely.
TEST_F(CliBinary, OutputTargets)
{
    const std::string midi = "file:MThd";
    const auto link = [](const char* target, const char* name) {
        return [=](const fs::path& dir) {
            fs::create_symlink(target, dir / name);
        };
    };
    struct Row
    {
        const char* what;
        std::function<void(const fs::path&)> setUp;
        std::vector<std::string> args;
        std::string mentions;  ///< in standard error; empty when the run succeeds
        std::map<std::string, std::string> changes = {};  ///< in listing() after a success
    };
    const Row rows[] = {
        {"the video itself", {}, {"-o", "clip.mp4", "clip.mp4"}, "is the video \"clip.mp4\""},
        {"a link to the video",
         link("clip.mp4", "out.mid"),
         {"-o", "out.mid", "clip.mp4"},
         "is the video"},
        {"a hard link to the video",
         [](const fs::path& dir) { fs::create_hard_link(dir / "clip.mp4", dir / "cuts.tsv"); },
         {"--no-midi", "--cut-list", "cuts.tsv", "clip.mp4"},
         "--cut-list \"cuts.tsv\" is the video"},
        {"two videos with one default output",
         [](const fs::path& dir) { fs::copy_file(dir / "clip.mp4", dir / "clip.mkv"); },
         {"clip.mp4", "clip.mkv"},
         "would both be written to \"clip_Markers.mid\""},
        {"one video twice", {}, {"clip.mp4", "./clip.mp4"}, "would both be written to"},
        {"the cut list on the MIDI file",
         {},
         {"--cut-list", "clip_Markers.mid", "clip.mp4"},
         "would both be written to"},
        {"a directory",
         [](const fs::path& dir) { fs::create_directory(dir / "clip_Markers.mid"); },
         {"clip.mp4"},
         "it is a directory"},
        {"a FIFO",
         [](const fs::path& dir) { mkfifo((dir / "out.mid").c_str(), 0644); },
         {"-o", "out.mid", "clip.mp4"},
         "it is a FIFO"},
        {"a side file planted as a link",
         [](const fs::path& dir) {
             std::ofstream(dir / "victim") << "keep";
             fs::create_symlink("victim", dir / "clip_Markers.mid.part");
         },
         {"-q", "clip.mp4"},
         "",
         {{"clip_Markers.mid", midi}}},
        {"a link to a file",
         [](const fs::path& dir) {
             std::ofstream(dir / "victim") << "old";
             fs::create_symlink("victim", dir / "out.mid");
         },
         {"-q", "-o", "out.mid", "clip.mp4"},
         "",
         {{"victim", midi}}},
    };
    const std::string source = clip("h264-cuts.mp4");
    int index = 0;
    for (const Row& row : rows) {
        const fs::path dir = dir_ / std::to_string(index++);
        fs::create_directory(dir);
        fs::copy_file(source, dir / "clip.mp4");
        if (row.setUp) {
            row.setUp(dir);
        }
        // Held open so that a tool that wrongly opened the FIFO would not block.
        const int fifoReader = open((dir / "out.mid").c_str(), O_RDONLY | O_NONBLOCK);
        std::map<std::string, std::string> expected = listing(dir);
        const Outcome run = scan(row.args, {}, [&] {
            if (chdir(dir.c_str()) != 0) {
                _exit(126);
            }
        });
        if (fifoReader >= 0) {
            close(fifoReader);
        }
        EXPECT_EQ(run.status, row.mentions.empty() ? 0 : 2) << row.what << "\n" << run.err;
        EXPECT_NE(run.err.find(row.mentions), std::string::npos) << row.what << "\n" << run.err;
        EXPECT_TRUE(run.out.empty()) << row.what;
        for (const auto& [name, entry] : row.changes) {
            expected[name] = entry;
        }
        EXPECT_EQ(listing(dir), expected) << row.what;
    }
}

// A failed write to standard output is a failure of its own, whatever was to go there.
TEST_F(CliBinary, FailedWritesToStandardOutputExitWithThree)
{
    const std::string video = clip("h264-cuts.mp4");
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"--json", "--no-midi", video}, {"-q", "-o", "-", video}, {"--help"}}) {
        const Outcome run = scan(args, {}, [] {
            const int full = open("/dev/full", O_WRONLY);
            dup2(full, STDOUT_FILENO);
        });
        EXPECT_EQ(run.status, 3) << args.front() << "\n" << run.err;
        EXPECT_NE(run.err.find("could not write to standard output: No space left on device"),
                  std::string::npos)
            << run.err;
    }
}

TEST_F(CliBinary, UsageErrorsExitWithTwo)
{
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{},
                                               {"--frobnicate", "a.mp4"},
                                               {"--video-start", "25:00:00:00", "a.mp4"},
                                               {"--video-start", "\x1b]2;owned\x07", "a.mp4"}}) {
        const Outcome run = scan(args);
        EXPECT_EQ(run.status, 2);
        EXPECT_NE(run.err.find("--help"), std::string::npos) << run.err;
        EXPECT_EQ(run.err.find('\x1b'), std::string::npos) << "an escape reached the terminal";
        EXPECT_TRUE(run.out.empty());
    }
    EXPECT_TRUE(scan({"--version"}).out.starts_with("kestrin-scan "));
}

TEST_F(CliBinary, InterruptStopsTheScanAndWritesNothing)
{
    // A long clip whose keyframes miss the cuts, so the whole file is decoded.
    const std::string source = clip("h264-gop12.mp4");
    const std::string video = (dir_ / "long.mp4").string();
    ffmpeg("-stream_loop 20 -i " + source + " -c copy " + video);
    fs::remove(source);

    bool sent = false;
    const Outcome run = scan({"-v", video}, [&](pid_t pid, const std::string& err) {
        if (!sent && err.find("trusted?") != std::string::npos) {
            sent = kill(pid, SIGINT) == 0;
        }
    });
    ASSERT_TRUE(sent) << run.err;
    EXPECT_EQ(run.status, 130) << run.err;
    EXPECT_TRUE(midiFiles(dir_).empty());
}

}  // namespace
