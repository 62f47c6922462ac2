// The command line of kestrin-scan: the input split at NUL bytes into arguments. Any arguments
// either parse into options that keep the documented rules or give a usage error; an
// accepted timecode must also count as frames where the export takes it.

#include "options.hpp"

#include <kestrin/app/export_rules.hpp>
#include <kestrin/scan/detector.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <vector>

namespace {

using namespace kestrin;

void check(bool promise, const char* what)
{
    if (!promise) {
        std::fprintf(stderr, "broken promise: %s\n", what);
        __builtin_trap();
    }
}

bool isDigitString(std::string_view digits)
{
    return !digits.empty() && digits.size() <= 8
           && std::all_of(
               digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::vector<std::string_view> args;
    for (std::size_t start = 0; start <= bytes.size() && args.size() < 64;) {
        const std::size_t end = std::min(bytes.find('\0', start), bytes.size());
        args.push_back(bytes.substr(start, end - start));
        start = end + 1;
    }
    if (size == 0) {
        args.clear();  // no arguments at all, not one empty one
    }

    const core::Expected<cli::Options> parsed = cli::parseOptions(args);
    if (!parsed) {
        const core::Error& error = parsed.error();
        check(error.domain == "usage" && error.code == 2, "a usage error");
        // The message quotes the argument at fault as given, line breaks and all.
        check(!error.description.empty(), "a message");
        return 0;
    }
    const cli::Options& options = *parsed;
    check(isDigitString(options.sessionStartDigits) && isDigitString(options.videoStartDigits),
          "timecodes kept as one to eight ASCII digits");
    check(scan::findDetector(options.detector).has_value(), "a detector that exists");
    if (options.rate) {
        check(core::standardFrameRateRow(*options.rate).has_value(),
              "a rate snapped to a standard one");
        // What the command line accepted at its rate, the export counts there.
        const app::DropFrameSources dropFrame{options.dropFrame, std::nullopt};
        check(app::videoStartOffsetFrames(
                  *options.rate, dropFrame, options.sessionStartDigits, options.videoStartDigits)
                  .has_value(),
              "accepted timecodes have a frame count");
    }
    // The marker texts come from the user's pattern; any pattern makes some text.
    (void)app::markerText(options.markerName, 1, "01:00:00:00");
    if (options.help || options.version) {
        return 0;
    }
    check(!options.videos.empty(), "a video to scan");
    check(!options.output || (options.videos.size() == 1 && options.writeMIDI), "-o for one video");
    check(!options.cutList || options.videos.size() == 1, "--cut-list for one video");
    return 0;
}
