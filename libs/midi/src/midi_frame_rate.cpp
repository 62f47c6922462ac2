#include <kestrin/midi/midi_frame_rate.hpp>

#include <array>
#include <cstddef>

namespace kestrin::midi {

namespace {

// Indexed by code. 19200 ticks per second over the real rate: the 1000/1001 rates keep the
// factor exactly (23.976 fps is 24000/1001 fps, so 19200 * 1001 / 24000 = 4004 / 5 = 800.8).
constexpr std::array<TickRatio, kMIDIFrameRateCount> kTicksPerFrame{{
    {320, 1},     // 0: 60
    {320, 1},     // 1: 60
    {16016, 50},  // 2: 59.94 drop-frame
    {16016, 50},  // 3: 59.94 non-drop
    {384, 1},     // 4: 50
    {400, 1},     // 5: 48
    {2002, 5},    // 6: 47.952
    {640, 1},     // 7: 30
    {640, 1},     // 8: 30
    {32032, 50},  // 9: 29.97 drop-frame
    {32032, 50},  // 10: 29.97 non-drop
    {768, 1},     // 11: 25
    {800, 1},     // 12: 24
    {4004, 5},    // 13: 23.976
}};

// Indexed by code, as above.
constexpr std::array<core::FrameRate, kMIDIFrameRateCount> kFramesPerSecond{{
    {60, 1},
    {60, 1},
    {60000, 1001},
    {60000, 1001},
    {50, 1},
    {48, 1},
    {48000, 1001},
    {30, 1},
    {30, 1},
    {30000, 1001},
    {30000, 1001},
    {25, 1},
    {24, 1},
    {24000, 1001},
}};

std::size_t indexOf(MIDIFrameRate rate)
{
    const auto code = static_cast<std::size_t>(rate);
    return code < kTicksPerFrame.size() ? code : static_cast<std::size_t>(MIDIFrameRate::Fps24);
}

}  // namespace

TickRatio ticksPerFrame(MIDIFrameRate rate)
{
    return kTicksPerFrame[indexOf(rate)];
}

core::FrameRate framesPerSecond(MIDIFrameRate rate)
{
    return kFramesPerSecond[indexOf(rate)];
}

bool isDropFrame(MIDIFrameRate rate)
{
    return rate == MIDIFrameRate::Fps5994DropFrame || rate == MIDIFrameRate::Fps2997DropFrame;
}

MIDIFrameRate frameRateCode(core::FrameRate rate, bool dropFrame)
{
    const bool counting = dropFrame && rate.allowsDropFrame();
    // From the highest code down, so the main code of 60 and 30 (1 and 8) comes before the
    // alternate one (0 and 7).
    for (int code = kMIDIFrameRateCount - 1; code >= 0; --code) {
        const auto candidate = static_cast<MIDIFrameRate>(code);
        if (kFramesPerSecond[static_cast<std::size_t>(code)] == rate
            && isDropFrame(candidate) == counting) {
            return candidate;
        }
    }
    return MIDIFrameRate::Fps24;
}

}  // namespace kestrin::midi
