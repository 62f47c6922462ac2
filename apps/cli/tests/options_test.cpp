#include "options.hpp"

#include "report.hpp"
#include "run.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestrin::cli {
namespace {

core::Expected<Options> parse(std::vector<std::string_view> args)
{
    return parseOptions(args);
}

TEST(CliOptions, TimecodeFormsKeepTheirDigits)
{
    const auto options = parse({"--session-start",
                                "00:59:50:00",
                                "--video-start=01:00:00;02",
                                "--rate",
                                "30000/1001",
                                "--drop-frame",
                                "a.mov"});
    ASSERT_TRUE(options.hasValue()) << options.error().description;
    EXPECT_EQ(options->sessionStartDigits, "00595000");
    EXPECT_EQ(options->videoStartDigits, "01000002");
    EXPECT_FLOAT_EQ(*options->rate, 29.97F);
    EXPECT_EQ(parse({"--video-start", "1000", "a.mov"})->videoStartDigits, "1000");
}

TEST(CliOptions, UsageErrorsNameTheOption)
{
    const std::vector<std::pair<std::vector<std::string_view>, std::string>> rows = {
        {{}, "no video"},
        {{"--bogus", "a.mov"}, "--bogus"},
        {{"a.mov", "--rate"}, "--rate"},
        {{"--rate", "fast", "a.mov"}, "--rate"},
        {{"--video-start", "00:00:00:25", "--rate", "25", "a.mov"}, "--video-start"},
        // A label drop-frame counting skips; the same digits are fine at 25.
        {{"--rate", "29.97", "--session-start", "00:01:00;00", "a.mov"}, "--session-start"},
        {{"--session-start", "123:45:67:89", "a.mov"}, "--session-start"},
        {{"--video-start", "now", "a.mov"}, "--video-start"},
        {{"-o", "x.mid", "a.mov", "b.mov"}, "--output"},
        {{"--cut-list", "x.tsv", "a.mov", "b.mov"}, "--cut-list"},
        {{"--json=yes", "a.mov"}, "--json"},
        {{"--detector", "best", "a.mov"}, "--detector"},
    };
    for (const auto& [args, named] : rows) {
        const auto options = parse(args);
        ASSERT_FALSE(options.hasValue()) << named;
        EXPECT_NE(options.error().description.find(named), std::string::npos)
            << options.error().description;
    }
    EXPECT_TRUE(parse({"--rate", "25", "--session-start", "00:01:00;00", "a.mov"}).hasValue());
}

TEST(CliOptions, EveryDetectorCanBeChosenAndIsListedInTheHelp)
{
    EXPECT_EQ(parse({"a.mov"})->detector, scan::kDefaultDetectorName);
    for (const scan::Detector& detector : scan::allDetectors()) {
        EXPECT_EQ(parse({"--detector", detector.name, "a.mov"})->detector, detector.name);
        EXPECT_NE(helpText().find("    " + detector.name + " "), std::string::npos)
            << detector.name;
    }
}

TEST(CliReport, JsonStringsAndMarkerTexts)
{
    EXPECT_EQ(jsonString("a\"b\\c\n\t\x01\x7f Schnitt ä"),
              R"("a\"b\\c\n\t\u0001\u007f Schnitt ä")");

    VideoReport failed;
    failed.file = "dir/\"odd\".mp4";
    failed.error = core::Error{"FFmpeg", -2, "No such file or directory"};
    EXPECT_EQ(jsonLine(failed),
              R"({"file":"dir/\"odd\".mp4","error":"No such file or directory"})");
    VideoReport found;
    found.file = "a.mov";
    found.cuts = {{50, 2.0, "01:00:02:00", 0.75F}, {100, 4.0, "01:00:04:00", std::nullopt}};
    const std::string line = jsonLine(found);
    EXPECT_NE(line.find(R"("timecode":"01:00:02:00","confidence":0.75})"), std::string::npos);
    EXPECT_NE(line.find(R"("timecode":"01:00:04:00","confidence":null})"), std::string::npos);
    EXPECT_EQ(defaultMIDIPath("dir/clip.v1.mov"), std::filesystem::path("dir/clip.v1_Markers.mid"));
}

}  // namespace
}  // namespace kestrin::cli
