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
    EXPECT_EQ(options->rate, core::kFps2997);
    EXPECT_EQ(parse({"--video-start", "1000", "a.mov"})->videoStartDigits, "1000");
    EXPECT_EQ(parse({"--video-start", "01.00 00.01", "a.mov"})->videoStartDigits, "01000001");
    // Starting together is fine; the flags at the rates where counting is a choice too.
    EXPECT_TRUE(parse({"--session-start", "1000000", "a.mov"}).hasValue());
    EXPECT_TRUE(parse({"--non-drop-frame", "--rate", "59.94", "a.mov"}).hasValue());
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
        // Letters are not dropped: this is not 00:10:00:00.
        {{"--video-start", "01:0a:00:00", "a.mov"}, "--video-start: not a timecode"},
        {{"--session-start", "00:00:01:00", "--video-start", "00:00:00:24", "a.mov"},
         "--video-start (00:00:00:24) is before --session-start (00:00:01:00)"},
        {{"--session-start", "02:00:00:00", "a.mov"}, "--video-start (01:00:00:00) is before"},
        {{"--drop-frame", "--rate", "25", "a.mov"}, "--drop-frame: only 29.97 and 59.94"},
        {{"--rate=50", "--non-drop-frame", "a.mov"}, "--non-drop-frame: only"},
        {{"--drop-frame", "--non-drop-frame", "a.mov"}, "exclude each other"},
        {{"-o", "a.mid", "--output=b.mid", "a.mov"}, "--output is given more than once"},
        {{"-o", "-", "--cut-list", "-", "a.mov"}, "cannot both write to standard output"},
        {{"--json", "--cut-list", "-", "a.mov"}, "--json cannot share standard output"},
    };
    for (const auto& [args, named] : rows) {
        const auto options = parse(args);
        ASSERT_FALSE(options.hasValue()) << named;
        EXPECT_NE(options.error().description.find(named), std::string::npos)
            << options.error().description;
    }
    EXPECT_TRUE(parse({"--rate", "25", "--session-start", "00:01:00;00", "a.mov"}).hasValue());

    // Every option that takes one value refuses a second one rather than keep the last.
    for (const std::string_view option : {"-o",
                                          "--cut-list",
                                          "--rate",
                                          "--session-start",
                                          "--video-start",
                                          "--marker-name",
                                          "--detector"}) {
        const std::string_view value = option == "--rate"       ? "25"
                                       : option == "--detector" ? scan::kDefaultDetectorName
                                                                : "1";
        const auto options = parse({option, value, option, value, "a.mov"});
        ASSERT_FALSE(options.hasValue()) << option;
        EXPECT_EQ(options.error().description, std::string(option) + " is given more than once");
    }
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
    // File names need not be UTF-8, and may carry what a terminal takes as commands. Every byte
    // outside a well-formed sequence counts alone: a lead byte cut short, a stray continuation,
    // an overlong slash, a surrogate, a code point above U+10FFFF.
    struct Row
    {
        std::string_view text;
        std::string_view json;
        std::string_view terminal;
    };
    const Row rows[] = {
        {"ä€𝄞", R"("ä€𝄞")", "ä€𝄞"},
        {"\x1b[2J\xc2\x9b", R"("\u001b[2J\u009b")", R"(\x1b[2J\xc2\x9b)"},
        {"a\tb\n", R"("a\tb\n")", R"(a\x09b\x0a)"},
        // Bidirectional marks that would show "clip\u202Egpj.mp4" as "clip4pm.jpg"; ‰ is not one.
        {"a\xe2\x80\xae‰\xd8\x9c\xe2\x81\xa9",
         R"("a\u202e‰\u061c\u2069")",
         R"(a\xe2\x80\xae‰\xd8\x9c\xe2\x81\xa9)"},
        {"\xc3.\x80", R"("\ufffd.\ufffd")", R"(\xc3.\x80)"},
        {"\xc0\xaf\xed\xa0\x80\xf4\x90\x80\x80\xe2\x82",
         R"("\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd")",
         R"(\xc0\xaf\xed\xa0\x80\xf4\x90\x80\x80\xe2\x82)"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(jsonString(row.text), row.json) << row.terminal;
        EXPECT_EQ(terminalText(row.text), row.terminal) << row.terminal;
    }

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
