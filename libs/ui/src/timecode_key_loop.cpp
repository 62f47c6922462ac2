#include <kestrin/ui/timecode_key_loop.hpp>

namespace kestrin::ui {

TimecodeKeyLoop::TimecodeKeyLoop(QObject* parent)
    : QObject(parent)
{}

TimecodeKeyLoop::~TimecodeKeyLoop() = default;

void TimecodeKeyLoop::add(TimecodeField* field)
{
    QPointer<TimecodeField>& slot =
        field->fieldId() == TimecodeFieldId::sessionStart ? sessionStart_ : videoStart_;
    if (slot != nullptr && slot != field) {
        slot->keyLoop_ = nullptr;
    }
    slot = field;
    field->keyLoop_ = this;
}

TimecodeField* TimecodeKeyLoop::partner(const TimecodeField* field) const
{
    if (field == nullptr) {
        return nullptr;
    }
    switch (field->fieldId()) {
        case TimecodeFieldId::sessionStart:
            return sessionStart_ == field ? videoStart_.data() : nullptr;
        case TimecodeFieldId::videoStart:
            return videoStart_ == field ? sessionStart_.data() : nullptr;
    }
    return nullptr;
}

}  // namespace kestrin::ui
