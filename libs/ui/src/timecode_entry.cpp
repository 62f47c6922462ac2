#include <kestrin/timecode/timecode.hpp>
#include <kestrin/ui/timecode_entry.hpp>

#include <QTextBoundaryFinder>

#include <string>

namespace kestrin::ui {
namespace {

using timecode::FrameCounting;

FrameCounting counting(bool dropFrame)
{
    return dropFrame ? FrameCounting::DropFrame : FrameCounting::NonDrop;
}

QString numericOnly(QStringView text)
{
    return QString::fromStdString(timecode::numericOnly(text.toString().toStdString()));
}

// Where the last `count` characters of `text` begin (0 when it holds fewer), and how many
// characters that leaves.
struct Tail
{
    qsizetype position = 0;
    qsizetype characters = 0;
};

Tail lastCharacters(const QString& text, qsizetype count)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    finder.toEnd();
    Tail tail{text.size(), 0};
    while (tail.characters < count) {
        const qsizetype previous = finder.toPreviousBoundary();
        if (previous < 0) {
            break;
        }
        tail = {previous, tail.characters + 1};
    }
    return tail;
}

}  // namespace

QString normalizedDigits(QStringView text)
{
    const QString numeric = numericOnly(text);
    const Tail tail = lastCharacters(numeric, kFieldDigitCount);
    return QString(kFieldDigitCount - tail.characters, QLatin1Char('0'))
           + numeric.mid(tail.position);
}

QString fieldText(QStringView digits, bool dropFrame)
{
    const std::string kept = normalizedDigits(digits).toStdString();
    return QString::fromStdString(timecode::timecodeDisplayString(kept, counting(dropFrame)));
}

QString digitsAfterInsert(QStringView digits, QStringView inserted)
{
    return normalizedDigits(digits.toString().append(inserted));
}

QString digitsAfterBackspace(QStringView digits)
{
    const QString kept = normalizedDigits(digits);
    return normalizedDigits(QStringView(kept).first(lastCharacters(kept, 1).position));
}

bool isValidFieldDigits(QStringView digits, bool dropFrame, core::FrameRate nominalFps)
{
    return timecode::isValidTimecodeDigits(
        digits.toString().toStdString(), counting(dropFrame), nominalFps);
}

}  // namespace kestrin::ui
