#pragma once

#include <kestrin/core/media_time.hpp>

#include <optional>
#include <vector>

namespace kestrin::scan {

/// One frame with an image, as the signature pass saw it, with what a refinement asks of it.
struct TimelineFrame
{
    core::MediaTime presentationTime;
    /// How long the frame is shown, as its reader counted it (media::LumaFrame::duration).
    core::MediaTime duration;
    /// Mean absolute difference between this frame's video-range 96 x 54 luma and the previous
    /// frame's (meanAbsoluteDifference); absent for the first frame.
    std::optional<float> differenceToPrevious;
};

/// Every frame with an image of one whole-track pass, in the order decoded, so that the
/// refinements can be answered without decoding their neighbourhoods again.
///
/// A refinement reads the frames overlapping its range and compares neighbours; the pass reads the
/// same frames from the same decoder with the same conversion (a video-range plane is a fixed
/// table of the full-range one, media::videoRangeLuma), so the answers are the same as
/// refineAround()'s, as long as presentation times are numeric and strictly increasing and the
/// frames' ends never decrease. A timeline where they are not is unusable, and the refinements
/// then decode as usual.
class FrameTimeline
{
public:
    /// Appends the next frame. Amortised constant time.
    void append(const TimelineFrame& frame);

    /// Whether refineFromTimeline() gives refineAround()'s answers: every time and duration
    /// numeric, times strictly increasing, ends (time + duration) never decreasing.
    [[nodiscard]] bool isUsable() const { return isUsable_; }

    [[nodiscard]] const std::vector<TimelineFrame>& frames() const { return frames_; }

private:
    std::vector<TimelineFrame> frames_;
    bool isUsable_ = true;
};

}  // namespace kestrin::scan
