// kestrin-bench-trust: how much of a video file the keyframe trust decision reads, and how long it
// takes, next to one plain sequential read of the same file in the same run.
//
//   kestrin-bench-trust [--no-collect] <video file>
//
// Opens the file, takes its first video track and runs keyframesTrustable, then (unless
// --no-collect) collectSyncSamplesFast, then reads the whole file once with a 1 MiB buffer. Each
// phase is timed with the steady clock, and the bytes the process read during it come from
// /proc/self/io: rchar counts every byte that passed through a read call, whether or not the page
// cache held it, which is what shows how much of the file a phase touches; read_bytes (what
// actually came from the disk) is shown as well when it is not zero. The last line,
// "summary: key=value ...", is for scripts.

#include <kestrin/core/error.hpp>
#include <kestrin/core/log.hpp>
#include <kestrin/media/asset.hpp>
#include <kestrin/media/format_description.hpp>
#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/scan/keyframe_trust.hpp>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

/// The two counters of /proc/self/io this benchmark reports, and the length of the text they were
/// read from: reading the file passes through read calls too, and those bytes are counted in
/// rchar right after the snapshot was taken.
struct IoCounters
{
    std::int64_t rchar = -1;
    std::int64_t readBytes = -1;
    std::int64_t textLength = 0;
};

/// The counters now; rchar and readBytes are -1 when /proc/self/io cannot be read.
IoCounters readIoCounters()
{
    IoCounters counters;
    std::ifstream in("/proc/self/io");
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    counters.textLength = static_cast<std::int64_t>(text.size());
    std::istringstream fields(text);
    std::string key;
    std::int64_t value = 0;
    while (fields >> key >> value) {
        if (key == "rchar:") {
            counters.rchar = value;
        } else if (key == "read_bytes:") {
            counters.readBytes = value;
        }
    }
    return counters;
}

/// The wall time and the bytes read of one phase.
struct Measurement
{
    double seconds = 0.0;
    std::int64_t rchar = 0;
    std::int64_t readBytes = 0;
};

/// Takes the counters and the clock around a phase. The bytes of the snapshot taken at start are
/// taken off, so a phase that reads nothing shows 0.
class Meter
{
public:
    Meter()
        : available_(readIoCounters().rchar >= 0)
    {}

    [[nodiscard]] bool available() const { return available_; }

    void start()
    {
        before_ = readIoCounters();
        started_ = Clock::now();
    }

    [[nodiscard]] Measurement stop() const
    {
        const Clock::time_point stopped = Clock::now();
        const IoCounters after = readIoCounters();
        Measurement measurement;
        measurement.seconds = std::chrono::duration<double>(stopped - started_).count();
        if (available_) {
            measurement.rchar = after.rchar - before_.rchar - before_.textLength;
            measurement.readBytes = after.readBytes - before_.readBytes;
        }
        return measurement;
    }

private:
    bool available_ = false;
    IoCounters before_;
    Clock::time_point started_;
};

/// Reads the whole file once, sequentially, with a 1 MiB buffer; the number of bytes read, or -1
/// when the file cannot be opened or a read fails.
std::int64_t readWholeFile(const std::filesystem::path& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    std::vector<char> buffer(std::size_t{1} << 20U);
    std::int64_t total = 0;
    while (true) {
        const ssize_t got = ::read(fd, buffer.data(), buffer.size());
        if (got < 0) {
            total = -1;
            break;
        }
        if (got == 0) {
            break;
        }
        total += got;
    }
    ::close(fd);
    return total;
}

std::string milliseconds(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f ms", seconds * 1000.0);
    return text;
}

/// `value / whole`, printed with enough digits to show a small share; "n/a" when `whole` is 0.
std::string ratio(double value, double whole)
{
    if (whole <= 0.0) {
        return "n/a";
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.6f", value / whole);
    return text;
}

/// A byte count with its share of the file.
std::string bytesWithShare(std::int64_t bytes, std::int64_t fileSize)
{
    std::ostringstream out;
    out << bytes << " B (" << ratio(static_cast<double>(bytes), static_cast<double>(fileSize))
        << " of the file)";
    return out.str();
}

void printPhase(std::string_view name, const Measurement& measurement, std::int64_t fileSize)
{
    std::cout << "  " << name << ": " << milliseconds(measurement.seconds) << ", rchar "
              << bytesWithShare(measurement.rchar, fileSize);
    if (measurement.readBytes != 0) {
        std::cout << ", read_bytes " << measurement.readBytes << " B";
    }
    std::cout << '\n';
}

std::string describe(const kestrin::core::Error& error)
{
    return error.domain + " " + std::to_string(error.code) + ": " + error.description;
}

/// A log that keeps its lines for printing after the measurement, so printing costs no time
/// inside it.
struct CollectedLog
{
    std::vector<std::string> lines;

    [[nodiscard]] kestrin::core::Log log()
    {
        return kestrin::core::Log([this](std::string_view line) { lines.emplace_back(line); });
    }
};

int usage()
{
    std::cerr << "usage: kestrin-bench-trust [--no-collect] <video file>\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    namespace media = kestrin::media;
    namespace scan = kestrin::scan;

    bool collect = true;
    std::filesystem::path path;
    const std::vector<std::string_view> arguments(argv + 1, argv + argc);
    for (const std::string_view argument : arguments) {
        if (argument == "--no-collect") {
            collect = false;
        } else if (!argument.empty() && argument.front() == '-') {
            return usage();
        } else if (path.empty()) {
            path = argument;
        } else {
            return usage();
        }
    }
    if (path.empty()) {
        return usage();
    }

    std::error_code sizeError;
    const auto fileSize = static_cast<std::int64_t>(std::filesystem::file_size(path, sizeError));
    if (sizeError) {
        std::cerr << path.string() << ": " << sizeError.message() << '\n';
        return 1;
    }

    Meter meter;
    if (!meter.available()) {
        std::cerr << "warning: /proc/self/io cannot be read; byte counts show as 0\n";
    }

    // The opener is made before the clock starts: making the first one sets up FFmpeg's log.
    const kestrin::media_ffmpeg::FFmpegAssetOpener opener;

    meter.start();
    auto opened = opener.openAsset(path);
    const Measurement open = meter.stop();
    if (!opened) {
        std::cerr << path.string() << ": " << describe(opened.error()) << '\n';
        return 1;
    }
    const media::AssetPointer asset = std::move(opened.value());

    auto videoTracks = asset->tracksWithMediaType(media::MediaType::video);
    if (!videoTracks) {
        std::cerr << path.string() << ": " << describe(videoTracks.error()) << '\n';
        return 1;
    }
    if (videoTracks->empty()) {
        std::cerr << path.string() << ": no video track\n";
        return 1;
    }
    const media::Track& track = *videoTracks->front();

    CollectedLog decisionLog;
    meter.start();
    const auto trustable =
        scan::keyframesTrustable(*asset, track, scan::KeyframeTrustParameters{}, decisionLog.log());
    const Measurement decision = meter.stop();
    if (!trustable) {
        std::cerr << path.string() << ": " << describe(trustable.error()) << '\n';
        return 1;
    }

    CollectedLog collectLog;
    Measurement collection;
    std::size_t syncCount = 0;
    if (collect) {
        meter.start();
        const auto syncs = scan::collectSyncSamplesFast(track, collectLog.log());
        collection = meter.stop();
        if (!syncs) {
            std::cerr << path.string() << ": " << describe(syncs.error()) << '\n';
            return 1;
        }
        syncCount = syncs->size();
    }

    meter.start();
    const std::int64_t plainBytes = readWholeFile(path);
    const Measurement plainRead = meter.stop();
    if (plainBytes < 0) {
        std::cerr << path.string() << ": the plain read failed\n";
        return 1;
    }

    std::cout << path.string() << '\n';
    std::cout << "  file size: " << fileSize << " B\n";
    std::cout << "  verdict: keyframes " << (*trustable ? "trusted" : "not trusted") << '\n';
    for (const std::string& line : decisionLog.lines) {
        std::cout << "  log: " << line << '\n';
    }
    printPhase("open", open, fileSize);
    printPhase("decision", decision, fileSize);
    if (collect) {
        printPhase("collectSyncSamplesFast", collection, fileSize);
        std::cout << "    " << syncCount << " sync samples\n";
        for (const std::string& line : collectLog.lines) {
            std::cout << "    log: " << line << '\n';
        }
    }
    printPhase("plain sequential read (1 MiB buffer)", plainRead, fileSize);

    const auto share = [fileSize](const Measurement& m) {
        return ratio(static_cast<double>(m.rchar), static_cast<double>(fileSize));
    };
    const auto pace = [&plainRead](const Measurement& m) {
        return ratio(m.seconds, plainRead.seconds);
    };
    std::cout << "  ratios (bytes read / file size, time / plain read time):\n";
    std::cout << "    open:     " << share(open) << "  " << pace(open) << '\n';
    std::cout << "    decision: " << share(decision) << "  " << pace(decision) << '\n';
    if (collect) {
        std::cout << "    collect:  " << share(collection) << "  " << pace(collection) << '\n';
    }

    std::cout << "summary:"
              << " file_bytes=" << fileSize << " verdict=" << (*trustable ? "true" : "false")
              << " open_s=" << open.seconds << " open_rchar=" << open.rchar
              << " open_read_bytes=" << open.readBytes << " decision_s=" << decision.seconds
              << " decision_rchar=" << decision.rchar
              << " decision_read_bytes=" << decision.readBytes;
    if (collect) {
        std::cout << " collect_s=" << collection.seconds << " collect_rchar=" << collection.rchar;
    }
    std::cout << " plain_s=" << plainRead.seconds << " plain_rchar=" << plainRead.rchar
              << " decision_share=" << share(decision) << " decision_pace=" << pace(decision)
              << '\n';
    return 0;
}
