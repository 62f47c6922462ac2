#include <kestrin/midi/marker_ticks.hpp>
#include <kestrin/midi/standard_midi_export_service.hpp>

namespace kestrin::midi {

StandardMIDIExportService::StandardMIDIExportService(MarkerFileLayout layout)
    : layout_(layout)
{}

std::int64_t StandardMIDIExportService::ppq() const
{
    return layout_ == MarkerFileLayout::Workstation ? kWorkstationTicksPerQuarter
                                                    : kTicksPerQuarter;
}

std::int64_t StandardMIDIExportService::tempoUSPerQuarter() const
{
    return layout_ == MarkerFileLayout::Workstation ? kWorkstationTempoUSPerQuarter
                                                    : kTempoUSPerQuarter;
}

core::Expected<std::vector<std::uint8_t>> StandardMIDIExportService::exportMarkerFile(
    const std::vector<std::int64_t>& frameDeltas,
    MIDIFrameRate rate,
    std::string_view markerName,
    std::optional<std::string_view> firstMarkerName,
    std::int64_t startOffsetFrames,
    std::int64_t firstGapFrames)
{
    const std::vector<std::int64_t> frameList =
        markerFrameList(frameDeltas, startOffsetFrames, firstGapFrames);
    return assembleMarkerFile(
        tickDeltasForFrames(frameList, rate), markerName, firstMarkerName, layout_, rate);
}

core::Expected<std::vector<std::uint8_t>> StandardMIDIExportService::exportNamedMarkerFile(
    const std::vector<std::int64_t>& frameDeltas,
    MIDIFrameRate rate,
    std::int64_t startOffsetFrames,
    std::span<const std::string> markerNames)
{
    const std::vector<std::int64_t> frameList = markerFrameList(frameDeltas, startOffsetFrames, 0);
    return assembleMarkerFile(tickDeltasForFrames(frameList, rate), markerNames, layout_, rate);
}

}  // namespace kestrin::midi
