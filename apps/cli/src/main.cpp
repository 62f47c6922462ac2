// kestrin-scan: finds the picture cuts of videos and writes them as MIDI markers.

#include "options.hpp"
#include "report.hpp"
#include "run.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/media_ffmpeg/ffmpeg_log.hpp>

#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <unistd.h>

#ifndef KESTRIN_VERSION
#error "KESTRIN_VERSION must be defined by the build"
#endif

namespace {

using namespace kestrin;

// A bar on standard error, redrawn when the whole percentage changes.
class ProgressBar
{
public:
    explicit ProgressBar(bool enabled)
        : enabled_(enabled)
    {}
    void show(const std::string& name, double fraction)
    {
        const int percent = static_cast<int>(fraction * 100);
        if (!enabled_ || percent == percent_) {
            return;
        }
        percent_ = percent;
        constexpr int kWidth = 30;
        const int filled = percent * kWidth / 100;
        std::fprintf(stderr,
                     "\r%s [%s%s] %3d%%",
                     name.c_str(),
                     std::string(static_cast<std::size_t>(filled), '#').c_str(),
                     std::string(static_cast<std::size_t>(kWidth - filled), ' ').c_str(),
                     percent);
        std::fflush(stderr);
    }
    void clear()
    {
        if (enabled_ && percent_ >= 0) {
            std::fputs("\r\033[K", stderr);
            std::fflush(stderr);
        }
        percent_ = -1;
    }

private:
    bool enabled_;
    int percent_ = -1;
};

int run(const cli::Options& options, cli::Interruption& interruption)
{
    const core::Log log = options.verbose ? core::Log() : core::Log::discard();
    media_ffmpeg::routeFFmpegLog(log,
                                 options.verbose ? media_ffmpeg::FFmpegLogLevel::warning
                                                 : media_ffmpeg::FFmpegLogLevel::quiet);
    const cli::VideoRunner runner(
        options, std::make_shared<media_ffmpeg::FFmpegAssetOpener>(), log, interruption);
    ProgressBar bar(!options.quiet && isatty(STDERR_FILENO) == 1);

    bool anyFailed = false;
    for (const std::filesystem::path& video : options.videos) {
        if (interruption.interrupted()) {
            break;
        }
        const std::string name = video.filename().string();
        const cli::VideoReport report =
            runner.run(video, [&](double fraction) { bar.show(name, fraction); });
        bar.clear();
        if (interruption.interrupted()) {
            break;
        }
        anyFailed = anyFailed || report.error.has_value();
        if (options.json) {
            std::cout << cli::jsonLine(report) << std::endl;
        } else if (report.error) {
            std::cerr << cli::humanLine(report) << std::endl;
        } else if (!options.quiet) {
            std::cout << cli::humanLine(report) << std::endl;
        }
    }
    if (interruption.interrupted()) {
        std::cerr << "kestrin-scan: interrupted" << std::endl;
        return 130;
    }
    return anyFailed ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv)
{
    // Before any thread exists, so every thread inherits the mask and only sigwait sees them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    const std::vector<std::string_view> args(argv + 1, argv + argc);
    const core::Expected<cli::Options> options = cli::parseOptions(args);
    if (!options) {
        std::cerr << "kestrin-scan: " << options.error().description
                  << "\nTry 'kestrin-scan --help' for more information." << std::endl;
        return 2;
    }
    if (options->help) {
        std::cout << cli::helpText();
        return 0;
    }
    if (options->version) {
        std::cout << "kestrin-scan " KESTRIN_VERSION << std::endl;
        return 0;
    }

    cli::Interruption interruption;
    std::jthread signalWaiter([&](const std::stop_token& stop) {
        int signal = 0;
        sigwait(&signals, &signal);
        if (!stop.stop_requested()) {
            interruption.interrupt();
        }
    });
    const int status = run(*options, interruption);
    // Wake the waiter with a signal of its own set; it sees the stop request and ends.
    signalWaiter.request_stop();
    pthread_kill(signalWaiter.native_handle(), SIGTERM);
    return status;
}
