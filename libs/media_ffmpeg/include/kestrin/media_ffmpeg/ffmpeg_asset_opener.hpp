#pragma once

#include <kestrin/core/error.hpp>
#include <kestrin/media/asset.hpp>

#include <filesystem>
#include <stop_token>

namespace kestrin::media_ffmpeg {

/// Opens media files with FFmpeg (libavformat, libavcodec, libswscale).
///
/// What the assets it opens report:
///  - Tracks: every stream of the file in file order, except attached pictures (cover art), which
///    are not tracks. A QuickTime timecode stream is a `timecode` track.
///  - Media subtype: the container's own four-character code when QuickTime knows it for the
///    stream's codec ('avc1', 'apcn', 'dvcp', ...); otherwise the QuickTime code FFmpeg's tables
///    give for the codec, so Motion-JPEG, ProRes and DV carry the same kind of code in MKV, AVI or
///    NUT as in MOV; otherwise the container's code; 0 when there is none. Timecode flags come
///    from the timecode sample description (bit 0: drop frame).
///  - Times: on each track's timeline, where the first presented frame is at 0. A video track's
///    frame duration is its average frame rate, snapped to the standard rate within 0.05 % of it
///    (a 1 ms WebM clock states 59.94 as 19001/317; it is 60000/1001). A time stamp that lies
///    within one tick of the container's clock of a frame boundary is reported on the frame grid
///    (frame n at n x 1001/60000 s), since such a stamp is the container's rounding of that
///    boundary; any other stamp (variable frame rate) keeps its own value. The sample cursor and
///    the frame reader report identical times for the same sample.
///  - Sample cursors: from the container's index without reading sample data where the index is
///    complete and presentation time equals decode time (MP4 and MOV with codecs that do not
///    reorder frames, such as ProRes, Motion-JPEG and DV); otherwise from demuxed packets (no
///    decoding), read as the cursor moves.
///
/// Inputs: a path is always a local file name, never a URL ("http://...", "concat:...",
/// "pipe:0" name files), and only that file is read. What is not a regular file is refused
/// before it is read, without blocking (a FIFO with no writer included): domain "Input", code 1,
/// "Is a FIFO, not a video file; only regular files can be scanned" (or a character device, a
/// block device, a socket); a directory gives FFmpeg's "Is a directory". A file that only names
/// other files or addresses to read (an HLS or DASH playlist, a concatenation list, an IMF
/// composition, an SDP description), whatever its extension, is refused unread: domain "Input",
/// code 2, "Is a list of other files or addresses (<format>), not a video file; only the file
/// itself is read".
///
/// Errors: FFmpeg's own failures come back as domain "FFmpeg", code the AVERROR value and as
/// description FFmpeg's text for that code unchanged ("No such file or directory", "Invalid data
/// found when processing input"); the description does not name the file, the caller knows which
/// file it asked for. The adapter's own failures use FFmpeg's codes and texts too: a reader asked
/// of a track that is not video gives AVERROR_STREAM_NOT_FOUND "Stream not found", a codec without
/// a decoder AVERROR_DECODER_NOT_FOUND "Decoder not found". A stop request gives AVERROR_EXIT
/// "Immediate exit requested".
///
/// FFmpeg's log goes to standard error at error level unless routeFFmpegLog() chose otherwise;
/// the first opener made installs that route when none was installed before.
///
/// Thread-safety: an opener and the assets it opens are immutable and may be used from any number
/// of threads; each reader and cursor opens the file on its own.
class FFmpegAssetOpener final : public media::AssetOpener
{
public:
    FFmpegAssetOpener();

    /// Reads the file's header and track properties (for MOV and MP4 also the sample tables; for
    /// a stream without a header, such as an MPEG program stream, the first packets). Decodes at
    /// most the few frames FFmpeg needs to learn the streams' properties. A stop request ends a
    /// blocking read and gives "Immediate exit requested".
    [[nodiscard]] core::Expected<media::AssetPointer> openAsset(
        const std::filesystem::path& path, std::stop_token stopToken = {}) const override;
};

}  // namespace kestrin::media_ffmpeg
