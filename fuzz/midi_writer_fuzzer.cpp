// The marker file writer on any marker texts (any length, any bytes), frame distances, offsets
// and rate codes, out-of-range codes included: the files it writes must be well-formed and hold
// exactly the markers asked for, and its refusals must be the documented ones.
//
// Input: a flags byte, a rate code, the start offset and the first gap, up to 64 frame distances,
// then the texts.

#include "fuzz_input.hpp"

#include <kestrin/midi/marker_ticks.hpp>
#include <kestrin/midi/midi_file_writer.hpp>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace kestrin::midi;
using kestrin::fuzz::FuzzInput;
__extension__ typedef __int128 Int128;  // NOLINT(modernize-use-using): __extension__ needs typedef

void check(bool promise, const char* what)
{
    if (!promise) {
        std::fprintf(stderr, "broken promise: %s\n", what);
        __builtin_trap();
    }
}

// Reads a marker file back, checking each byte against what the writer was asked for; traps at
// the first difference.
class FileReader
{
public:
    explicit FileReader(const std::vector<std::uint8_t>& file)
        : file_(file)
    {}

    void expectBytes(std::initializer_list<std::uint8_t> bytes, const char* what)
    {
        for (const std::uint8_t byte : bytes) {
            check(takeByte() == byte, what);
        }
    }

    void expectText(std::string_view text, const char* what)
    {
        check(takeQuantity() == text.size(), what);
        for (const char c : text) {
            check(takeByte() == static_cast<std::uint8_t>(c), what);
        }
    }

    std::uint64_t takeBigEndian(int byteCount)
    {
        std::uint64_t value = 0;
        for (int i = 0; i < byteCount; ++i) {
            value = (value << 8U) | takeByte();
        }
        return value;
    }

    // A variable-length quantity of up to ten bytes (any 64-bit value).
    std::uint64_t takeQuantity()
    {
        std::uint64_t value = 0;
        for (int i = 0; i < 10; ++i) {
            const std::uint8_t byte = takeByte();
            value = (value << 7U) | (byte & 0x7FU);
            if ((byte & 0x80U) == 0) {
                return value;
            }
        }
        check(false, "a quantity of at most ten bytes");
        return 0;
    }

    [[nodiscard]] bool isAtEnd() const { return offset_ == file_.size(); }

private:
    std::uint8_t takeByte()
    {
        check(offset_ < file_.size(), "the file holds every event");
        return file_[offset_++];
    }

    const std::vector<std::uint8_t>& file_;
    std::size_t offset_ = 0;
};

void checkFile(const std::vector<std::uint8_t>& file,
               std::span<const std::uint64_t> tickDeltas,
               std::span<const std::string_view> names,
               MarkerFileLayout layout,
               MIDIFrameRate rate)
{
    const bool isWorkstation = layout == MarkerFileLayout::Workstation;
    FileReader reader(file);
    reader.expectBytes({'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 1, 0, 1}, "the header");
    check(reader.takeBigEndian(2)
              == static_cast<std::uint64_t>(isWorkstation ? kWorkstationTicksPerQuarter
                                                          : kTicksPerQuarter),
          "the division");
    reader.expectBytes({'M', 'T', 'r', 'k'}, "the track chunk");
    check(reader.takeBigEndian(4) == file.size() - 22, "the track length counts what follows");
    const std::uint64_t tempo = isWorkstation ? kWorkstationTempoUSPerQuarter : kTempoUSPerQuarter;
    reader.expectBytes({0, 0xFF, 0x51, 3}, "the tempo event");
    check(reader.takeBigEndian(3) == tempo, "the tempo");
    reader.expectBytes({0, 0xFF, 0x03}, "the track name event");
    reader.expectText(kTrackName, "the track name");
    if (isWorkstation) {
        reader.expectBytes({0, 0xFF, 0x7F, 14, 0x7D, 'K', 'e', 's', 't', 'r', 'i', 'n', 1},
                           "the frame-rate event");
        const kestrin::core::FrameRate fps = framesPerSecond(rate);
        check(reader.takeBigEndian(2) == static_cast<std::uint64_t>(fps.numerator), "rate");
        check(reader.takeBigEndian(2) == static_cast<std::uint64_t>(fps.denominator), "rate");
        reader.expectBytes({static_cast<std::uint8_t>(isDropFrame(rate) ? 1 : 0)}, "drop-frame");
        reader.expectBytes({0, 0xBF, 0x03, 0}, "the channel event");
    }
    for (std::size_t i = 0; i < tickDeltas.size(); ++i) {
        check(reader.takeQuantity() == tickDeltas[i], "a marker's delta time");
        reader.expectBytes({0xFF, 0x06}, "a marker event");
        reader.expectText(names[i], "a marker's text");
    }
    reader.expectBytes({0, 0xFF, 0x2F, 0}, "the end of the track");
    check(reader.isAtEnd(), "nothing after the end of the track");
}

// The sum of the tick deltas is the last marker's position, rounded once: no rounding error
// builds up along the list. Holds while every running frame sum is non-negative and non-falling.
void checkTicks(std::span<const std::int64_t> frames,
                std::span<const std::uint64_t> ticks,
                MIDIFrameRate rate)
{
    check(ticks.size() == frames.size(), "one delta per frame distance");
    Int128 sum = 0;
    Int128 tickSum = 0;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        if (frames[i] < 0) {
            return;
        }
        sum += frames[i];
        tickSum += ticks[i];
    }
    if (sum >= (Int128{1} << 50U)) {
        return;  // beyond, a single delta may pass 64 bits and saturate
    }
    const TickRatio ratio = ticksPerFrame(rate);
    check((sum * ratio.numerator + ratio.denominator / 2) / ratio.denominator == tickSum,
          "the deltas add up to the last position");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput input(data, size);
    const std::uint8_t flags = input.takeByte();
    const auto rate = static_cast<MIDIFrameRate>(input.takeByte());  // any code, 14 to 255 too
    const MarkerFileLayout layout =
        (flags & 1U) != 0 ? MarkerFileLayout::Plain : MarkerFileLayout::Workstation;
    const std::int64_t startOffset = input.takeInt64();
    const std::int64_t firstGap = input.takeInt64();
    std::vector<std::int64_t> deltas(input.takeByte() % 65);
    for (std::int64_t& delta : deltas) {
        delta = input.takeInt64();
    }

    const std::vector<std::int64_t> frames = markerFrameList(deltas, startOffset, firstGap);
    check(frames.size() == deltas.size() + (firstGap >= 1 ? 2 : 1), "one distance per marker");
    check(frames.front() == startOffset, "the offset comes first");
    const std::vector<std::uint64_t> ticks = tickDeltasForFrames(frames, rate);
    checkTicks(frames, ticks, rate);

    // Texts of up to 300 bytes, so that both sides of the 255-byte limit are reached.
    const std::string_view markerName = input.takeString(300);
    const std::optional<std::string_view> firstName =
        (flags & 2U) != 0 ? std::optional(input.takeString(300)) : std::nullopt;
    std::vector<std::string> ownNames;
    std::vector<std::string_view> ownNameViews;
    for (std::size_t i = 0; i < ticks.size(); ++i) {
        ownNames.emplace_back(input.takeString(300));
    }
    ownNameViews.assign(ownNames.begin(), ownNames.end());

    // One text for all markers, another for the first.
    const std::string_view first = firstName && !firstName->empty() ? *firstName : markerName;
    std::vector<std::string_view> names(ticks.size(), markerName);
    std::vector<std::string> nameCopies(ticks.size(), std::string(markerName));
    if (!names.empty()) {
        names.front() = first;
        nameCopies.front() = first;
    }
    const bool isTooLong = (!ticks.empty() && first.size() > kMaxTextBytes)
                           || (ticks.size() > 1 && markerName.size() > kMaxTextBytes);
    const auto shared = assembleMarkerFile(ticks, markerName, firstName, layout, rate);
    check(shared.hasValue() == !isTooLong, "refused exactly for a text that is too long");
    if (shared) {
        checkFile(*shared, ticks, names, layout, rate);
        const auto same = assembleMarkerFile(ticks, nameCopies, layout, rate);
        check(same && *same == *shared, "both overloads write the same bytes for the same texts");
    } else {
        check(shared.error().domain == kMIDIErrorDomain && shared.error().code == kTextTooLongCode,
              "the too-long refusal");
    }

    // A text of its own for every marker.
    bool anyTooLong = false;
    for (const std::string& name : ownNames) {
        anyTooLong = anyTooLong || name.size() > kMaxTextBytes;
    }
    const auto own = assembleMarkerFile(ticks, ownNames, layout, rate);
    check(own.hasValue() == !anyTooLong, "refused exactly for a text that is too long");
    if (own) {
        checkFile(*own, ticks, ownNameViews, layout, rate);
    } else {
        check(own.error().code == kTextTooLongCode, "the too-long refusal");
    }

    // One text too few or too many.
    ownNames.resize((flags & 4U) != 0 ? ticks.size() + 1 : ticks.size() - 1);
    const auto miscounted = assembleMarkerFile(ticks, ownNames, layout, rate);
    check(!miscounted && miscounted.error().code == kNameCountCode, "a count of texts refused");
    return 0;
}
