// kestrin-scan: finds the picture cuts of videos and writes them as MIDI markers.

#include "options.hpp"
#include "report.hpp"
#include "run.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/media_ffmpeg/ffmpeg_log.hpp>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>
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

// The exit status when standard output could not be written: what the run printed, or sent
// there with -o - or --cut-list -, is incomplete.
constexpr int kOutputFailedStatus = 3;
// The exit status when every video was scanned but some could not be read whole: their cuts
// (and marker files) may be incomplete.
constexpr int kDamagedStatus = 4;

// Writes all of `text` to standard output, unbuffered; on failure says why on standard error.
bool writeOut(std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = ::write(STDOUT_FILENO, text.data(), text.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            const int error = errno;
            std::cerr << "kestrin-scan: could not write to standard output: "
                      << std::generic_category().message(error) << std::endl;
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

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
    bool anyDamaged = false;
    for (const std::filesystem::path& video : options.videos) {
        if (interruption.interrupted()) {
            break;
        }
        const std::string name = cli::terminalText(video.filename().string());
        const cli::VideoReport report =
            runner.run(video, [&](double fraction) { bar.show(name, fraction); });
        bar.clear();
        if (interruption.interrupted()) {
            break;
        }
        anyFailed = anyFailed || report.error.has_value();
        if (const std::string warning = cli::warningLine(report); !warning.empty()) {
            anyDamaged = true;
            std::cerr << warning << std::endl;
        }
        const std::string_view data(reinterpret_cast<const char*>(report.standardOutput.data()),
                                    report.standardOutput.size());
        if (!writeOut(data)) {
            return kOutputFailedStatus;
        }
        if (options.json) {
            if (!writeOut(cli::jsonLine(report) + "\n")) {
                return kOutputFailedStatus;
            }
        } else if (report.error) {
            std::cerr << cli::humanLine(report) << std::endl;
        } else if (!options.quiet) {
            // Standard output may carry a file's bytes; the report must not mix with them.
            if (options.isDataOnStandardOutput()) {
                std::cerr << cli::humanLine(report) << std::endl;
            } else if (!writeOut(cli::humanLine(report) + "\n")) {
                return kOutputFailedStatus;
            }
        }
    }
    if (interruption.interrupted()) {
        std::cerr << "kestrin-scan: interrupted" << std::endl;
        return 130;
    }
    if (anyFailed) {
        return 1;
    }
    return anyDamaged ? kDamagedStatus : 0;
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
    const auto usageError = [](const core::Error& error) {
        std::cerr << "kestrin-scan: " << cli::terminalText(error.description)
                  << "\nTry 'kestrin-scan --help' for more information." << std::endl;
        return 2;
    };
    const core::Expected<cli::Options> options = cli::parseOptions(args);
    if (!options) {
        return usageError(options.error());
    }
    if (options->help || options->version) {
        const bool written = writeOut(
            options->help ? cli::helpText() : std::string("kestrin-scan " KESTRIN_VERSION "\n"));
        return written ? 0 : kOutputFailedStatus;
    }
    if (const core::Status outputs = cli::checkOutputs(*options); !outputs) {
        return usageError(outputs.error());
    }
    // Binary data would garble the terminal.
    if (options->output == cli::kStandardOutput && isatty(STDOUT_FILENO) == 1) {
        return usageError({"usage",
                           2,
                           "--output -: standard output is a terminal; redirect it to a file or "
                           "a pipe"});
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
