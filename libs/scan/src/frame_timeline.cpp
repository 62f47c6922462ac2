#include <kestrin/scan/frame_timeline.hpp>

namespace kestrin::scan {

void FrameTimeline::append(const TimelineFrame& frame)
{
    // The lookup below finds the first frame of a range by a binary search on the frames' ends.
    const bool isOrdered = frames_.empty()
                           || (frames_.back().presentationTime < frame.presentationTime
                               && !(frame.presentationTime + frame.duration
                                    < frames_.back().presentationTime + frames_.back().duration));
    if (!frame.presentationTime.isNumeric() || !frame.duration.isNumeric() || !isOrdered) {
        isUsable_ = false;
    }
    frames_.push_back(frame);
}

}  // namespace kestrin::scan
