#include <kestrin/core/edit_marker.hpp>
#include <kestrin/core/hash_builder.hpp>
#include <kestrin/core/sync_sample.hpp>

#include <bit>
#include <cmath>
#include <cstdint>

namespace kestrin::core {

std::weak_ordering operator<=>(const EditMarker& a, const EditMarker& b)
{
    if (const std::weak_ordering order = a.time <=> b.time; order != 0) {
        return order;
    }
    return a.frameIndex <=> b.frameIndex;
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

std::weak_ordering operator<=>(const SyncSample& a, const SyncSample& b)
{
    const double secondsA = a.time.seconds();
    const double secondsB = b.time.seconds();
    if (std::isfinite(secondsA) && std::isfinite(secondsB) && secondsA != secondsB) {
        return secondsA < secondsB ? std::weak_ordering::less : std::weak_ordering::greater;
    }
    return a.index <=> b.index;
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
