#include <kestrin/core/edit_marker.hpp>
#include <kestrin/core/hash_builder.hpp>
#include <kestrin/core/sync_sample.hpp>

#include <bit>
#include <cmath>
#include <cstdint>

namespace kestrin::core {

bool operator==(const EditMarker& a, const EditMarker& b)
{
    if (a.frameIndex != b.frameIndex || a.time != b.time) {
        return false;
    }
    if (a.confidence.has_value() != b.confidence.has_value()) {
        return false;
    }
    return !a.confidence.has_value() || *a.confidence == *b.confidence;
}

bool operator<(const EditMarker& a, const EditMarker& b)
{
    const int order = compare(a.time, b.time);
    return order < 0 || (order == 0 && a.frameIndex < b.frameIndex);
}

std::size_t EditMarker::hashValue() const
{
    HashBuilder hash;
    hash.addSigned(frameIndex);
    hash.add(time.hashValue());
    hash.add(confidence.has_value() ? 1U : 0U);
    if (confidence.has_value()) {
        // -0 and +0 are equal, so they must hash alike.
        const float value = *confidence == 0.0F ? 0.0F : *confidence;
        hash.add(std::bit_cast<std::uint32_t>(value));
    }
    return hash.result();
}

bool operator==(const SyncSample& a, const SyncSample& b)
{
    if (a.index != b.index || a.time != b.time) {
        return false;
    }
    if (a.duration.has_value() != b.duration.has_value()) {
        return false;
    }
    return !a.duration.has_value() || *a.duration == *b.duration;
}

bool operator<(const SyncSample& a, const SyncSample& b)
{
    const double secondsA = a.time.seconds();
    const double secondsB = b.time.seconds();
    if (std::isfinite(secondsA) && std::isfinite(secondsB) && secondsA != secondsB) {
        return secondsA < secondsB;
    }
    return a.index < b.index;
}

std::size_t SyncSample::hashValue() const
{
    HashBuilder hash;
    hash.addSigned(index);
    hash.add(time.hashValue());
    hash.add(duration.has_value() ? 1U : 0U);
    if (duration.has_value()) {
        hash.add(duration->hashValue());
    }
    return hash.result();
}

}  // namespace kestrin::core
