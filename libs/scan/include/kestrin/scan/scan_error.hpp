#pragma once

#include <kestrin/core/error.hpp>

#include <cstdint>
#include <string>

namespace kestrin::scan {

/// Errors a scan raises itself. Errors that FFmpeg or the file system report are passed on
/// unchanged instead, and are always preferred to these where both apply.
namespace scan_error {

inline constexpr const char* kServiceDomain = "VideoScanService";
inline constexpr const char* kRefineDomain = "Kestrin";
inline constexpr const char* kDecodeDomain = "Decode";
inline constexpr const char* kCancellationDomain = "Cancellation";

/// The file has no video track.
inline core::Error noVideoTrack()
{
    return {kServiceDomain, 0, "The file has no video track."};
}
/// The signature pass's reader could not be set up for the track.
inline core::Error cannotAddVideoOutput()
{
    return {kServiceDomain, -1, "Cannot add video output"};
}
/// The signature pass was handed a reader that had already started.
inline core::Error readerAlreadyReading()
{
    return {kServiceDomain, -2, "Reader already reading"};
}
/// The signature pass's reader refused to start and said nothing of why.
inline core::Error failedToStartReading()
{
    return {kServiceDomain, -3, "Failed to startReading()"};
}
/// The signature pass's reader failed part-way and said nothing of why.
inline core::Error readerFailedDuringIteration()
{
    return {kServiceDomain, -4, "Reader failed during iteration"};
}
/// A refinement's reader refused to start and said nothing of why.
inline core::Error refineStartFailed()
{
    return {kRefineDomain, -3, "refineAround: startReading failed"};
}
/// A window reader refused to start and said nothing of why (no description).
inline core::Error decodeStartFailed()
{
    return {kDecodeDomain, -1, ""};
}
/// A window reader failed part-way and said nothing of why (no description).
inline core::Error decodeFailed()
{
    return {kDecodeDomain, -2, ""};
}
/// The scan needed a step that its service was built without (`step` names it).
inline core::Error stepUnavailable(const std::string& step)
{
    return {kServiceDomain, -10, "The scan step \"" + step + "\" is not available."};
}
/// A scan step failed by throwing instead of returning an error (`what` is the exception's text).
inline core::Error unexpectedFailure(const std::string& what)
{
    return {kServiceDomain, -11, "The scan failed unexpectedly: " + what};
}
/// The scan was stopped by its owner.
inline core::Error cancelled()
{
    return {kCancellationDomain, 1, "The scan was cancelled."};
}

/// Whether `error` is the cancellation error: a stop request, not a failure to report.
inline bool isCancellation(const core::Error& error)
{
    return error.domain == kCancellationDomain;
}

}  // namespace scan_error
}  // namespace kestrin::scan
