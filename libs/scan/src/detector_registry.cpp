#include <kestrin/scan/detector.hpp>

#include <algorithm>

namespace kestrin::scan {

std::vector<Detector> allDetectors()
{
    // The default first: --help lists them in this order.
    return {verifiedDetector(), classicDetector()};
}

std::optional<Detector> findDetector(std::string_view name)
{
    std::vector<Detector> detectors = allDetectors();
    const auto found = std::ranges::find(detectors, name, &Detector::name);
    if (found == detectors.end()) {
        return std::nullopt;
    }
    return std::move(*found);
}

Detector defaultDetector()
{
    return allDetectors().front();
}

}  // namespace kestrin::scan
