#pragma once

#include <kestrin/ui/timecode_field.hpp>

#include <QObject>
#include <QPointer>

namespace kestrin::ui {

/// Pairs the Session Start and Video Start fields so that Tab and Shift-Tab in one move the
/// focus to the other, and only there: neither field is in the window's ordinary tab chain.
///
/// Owned by whoever creates the two fields (for example as a child of the panel). It refers to the
/// fields weakly, and the fields to it: either side may be destroyed first, and a field whose
/// partner is gone keeps the focus on Tab. Interface thread only.
class TimecodeKeyLoop : public QObject
{
    Q_OBJECT

public:
    explicit TimecodeKeyLoop(QObject* parent = nullptr);
    ~TimecodeKeyLoop() override;
    TimecodeKeyLoop(const TimecodeKeyLoop&) = delete;
    TimecodeKeyLoop& operator=(const TimecodeKeyLoop&) = delete;
    TimecodeKeyLoop(TimecodeKeyLoop&&) = delete;
    TimecodeKeyLoop& operator=(TimecodeKeyLoop&&) = delete;

    /// Registers `field` under its `fieldId()`, replacing any field registered there before (which
    /// then leaves the loop). `field` may not be null.
    void add(TimecodeField* field);

    /// The other field of `field`'s pair: the Video Start field for the Session Start one and the
    /// other way round; null when that slot is empty, its field is gone, or `field` is not the one
    /// registered under its id.
    [[nodiscard]] TimecodeField* partner(const TimecodeField* field) const;

private:
    QPointer<TimecodeField> sessionStart_;
    QPointer<TimecodeField> videoStart_;
};

}  // namespace kestrin::ui
