#pragma once

#include <kestrin/app/edit_detector_view_model.hpp>
#include <kestrin/midi/midi_file_document.hpp>
#include <kestrin/ui/rack_elements.hpp>
#include <kestrin/ui/timecode_field.hpp>

#include <QMessageBox>
#include <QPixmap>
#include <QPointer>
#include <QSize>
#include <QStringList>
#include <QWidget>

#include <array>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

class QPaintEvent;

namespace kestrin::ui {

/// The file dialogs the panel opens, each modal and returning when closed. Tests put functions
/// here that answer at once.
struct RackDialogs
{
    /// Asks for one video file (not a directory); absent when the user cancels.
    std::function<std::optional<std::filesystem::path>(QWidget* parent)> chooseVideo;
    /// Asks where to save the exported MIDI file, proposing `proposed` (a folder and a file name,
    /// or a bare file name); absent when the user cancels.
    std::function<std::optional<std::filesystem::path>(QWidget* parent,
                                                       const std::filesystem::path& proposed)>
        chooseMIDIDestination;
};

/// QFileDialog for both: the video dialog offers the files matching videoFilePatterns(), the save
/// dialog MIDI files, adding ".mid" to a name typed without an extension.
[[nodiscard]] RackDialogs fileDialogs();

/// File name patterns of the video files the open dialog offers ("*.mov", "*.mp4", ...).
[[nodiscard]] QStringList videoFilePatterns();

/// Where the save dialog proposes to write the markers of `video`: its folder and its file name
/// without the last extension followed by "_Markers.mid" (/Movies/cut.final.mp4 gives
/// /Movies/cut.final_Markers.mid); without a video, "Kestrin Edits_Markers.mid".
[[nodiscard]] std::filesystem::path proposedMIDIPath(
    const std::optional<std::filesystem::path>& video);

/// The front plate of the rack unit: a fixed 840 × 420 panel of art, image buttons, two timecode
/// fields, the file name, the scan LED, a 32-LED progress bar and the keyframe lamp, all at fixed
/// places. It owns the view model, draws its state (redrawing on every change signal), sets the
/// properties the user changes and calls its operations; it keeps no state of its own beyond the
/// save dialog being up and the last exported bytes.
///
/// Buttons: each is enabled, lit and acts by the view model's state:
///   Select Video   enabled and lit unless a scan runs; opens the video dialog, and a chosen file
///                  becomes selectedURL and has its information loaded.
///   Start Scan     enabled and lit when the view model's canStartScan holds.
///   Cancel         enabled and lit while a scan runs.
///   Export MIDI    enabled and lit when canExport holds; asks the view model for the file and
///                  the save dialog for a place (see below).
///   rates          enabled unless a scan runs; lit when nominalFPS is the button's rate; set
///                  nominalFPS to it.
///   DF, NDF        enabled where isDropFrameApplicable holds, unless a scan runs; lit there when
///                  drop-frame is (DF) or is not (NDF) in force; set userPrefersDropFrame.
///
/// A change of selectedURL to a video loads its information (so a video chosen in the dialog is
/// loaded twice, with the same result). Whenever errorMessage is present an "Error" alert shows
/// it with one "OK" button; closing the alert in any way clears errorMessage. Export failures, and
/// failures to write the chosen file, end there. The file is written by core::writeFileSafely:
/// whole or not at all, through links; a directory or a special file is refused.
///
/// Interface thread only. Destroying the panel destroys the view model, which stops its scan.
class RackPanel : public QWidget
{
    Q_OBJECT

public:
    /// The panel's size in points.
    static constexpr QSize kSize{840, 420};

    /// A panel showing `model` (not null), which it keeps, opening `dialogs`.
    RackPanel(std::unique_ptr<app::EditDetectorViewModel> model,
              RackDialogs dialogs,
              QWidget* parent = nullptr);
    ~RackPanel() override;
    RackPanel(const RackPanel&) = delete;
    RackPanel& operator=(const RackPanel&) = delete;
    RackPanel(RackPanel&&) = delete;
    RackPanel& operator=(RackPanel&&) = delete;

    [[nodiscard]] app::EditDetectorViewModel& model() const { return *model_; }

    /// Takes `video` as if chosen in the video dialog: sets selectedURL and loads its
    /// information. Ignored while a scan runs, when the dialog cannot be opened either.
    void selectVideo(const std::filesystem::path& video);

    /// The save dialog is up.
    [[nodiscard]] bool isExporting() const { return isExporting_; }
    /// The bytes of the last export, kept until the next one; absent before the first.
    [[nodiscard]] const std::optional<midi::MIDIFileDocument>& midiDocument() const
    {
        return midiDoc_;
    }

    // The elements, for tests and assistive technology.
    [[nodiscard]] RackButton* button(RackButtonId id) const;
    [[nodiscard]] TimecodeField* sessionStartField() const { return sessionStartField_; }
    [[nodiscard]] TimecodeField* videoStartField() const { return videoStartField_; }
    [[nodiscard]] VideoLabel* videoLabel() const { return videoLabel_; }
    [[nodiscard]] RackLight* scanLight() const { return scanLight_; }
    [[nodiscard]] ProgressLedBar* progressBar() const { return progressBar_; }
    [[nodiscard]] RackLight* keyframeLamp() const { return keyframeLamp_; }
    /// The alert showing errorMessage; null while none is up.
    [[nodiscard]] QMessageBox* errorAlert() const { return errorAlert_; }
    /// The alert showing scanWarning (a scan that could not read the whole video); null while
    /// none is up.
    [[nodiscard]] QMessageBox* warningAlert() const { return warningAlert_; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void showModel();
    void showErrorMessage();
    void showScanWarning();
    // Shows `message` in the alert `alert` points to (opening it titled `title` when none is up),
    // or closes that alert when there is no message; closing it calls `dismiss`.
    void showAlert(QPointer<QMessageBox>& alert,
                   const QString& title,
                   const std::optional<std::string>& message,
                   const std::function<void()>& dismiss);
    void press(RackButtonId id);
    void chooseVideo();
    void exportMIDI();
    void saveMIDI(const std::filesystem::path& destination);
    [[nodiscard]] QPixmap drawBackground(qreal devicePixelRatio) const;

    std::unique_ptr<app::EditDetectorViewModel> model_;
    const RackDialogs dialogs_;
    bool isExporting_ = false;
    std::optional<midi::MIDIFileDocument> midiDoc_;

    // Children, owned by the widget tree.
    std::array<RackButton*, 14> buttons_{};
    TimecodeField* sessionStartField_ = nullptr;
    TimecodeField* videoStartField_ = nullptr;
    VideoLabel* videoLabel_ = nullptr;
    RackLight* scanLight_ = nullptr;
    ProgressLedBar* progressBar_ = nullptr;
    RackLight* keyframeLamp_ = nullptr;
    QPointer<QMessageBox> errorAlert_;
    QPointer<QMessageBox> warningAlert_;

    // What the panel itself draws never changes: drawn once per device pixel ratio.
    QPixmap background_;
};

}  // namespace kestrin::ui
