// Media back ends: tables of operations per container family, and the functions that fill them.
#ifndef LIBQUARRIN_MEDIA_H
#define LIBQUARRIN_MEDIA_H

#include "libquarrin/params.h"

namespace libquarrin
{

/// One media back end. Writers and readers are opaque; the open slots make them, the close slots end them. A slot that
/// a back end does not have is null.
struct tagQN_MEDIA_API_S
{
    /// Creates the file at a path with the streams of the parameters. The writer; null on failure, with no file left.
    void *(*pfnWriteOpen)(tagQN_RECORD_PARAM_S *pstParam, const char *pszPath);
    /// Writes one encoded frame; pts in the time base of its stream's parameters. 0; -1 for a null writer.
    int32_t (*pfnWriteFrame)(void *pWriter, const unsigned char *pu8Data, uint32_t u32Len, uint64_t u64Pts, bool bKey,
                             bool bVideo);
    /// Finishes the file and frees the writer. 0; -1 for a null writer.
    int32_t (*pfnWriteClose)(void *pWriter);
    /// Opens a file of a container for reading. The reader, or null.
    void *(*pfnReadOpen)(tagQN_REPLAY_PARAM_S *pstParam, const char *pszPath, QN_FILE_FMT_E enFormat);
    /// Fills the metadata of the open file. 0; -1 for a null reader.
    int32_t (*pfnReadMetadata)(void *pReader, tagQN_METADATA_S *pstMetadata);
    /// Hands out the next frame; its buffer stays the reader's until it is released, the reader seeks or closes.
    int32_t (*pfnReadGetFrame)(void *pReader, uint8_t **ppu8Data, uint32_t *pu32Size, uint64_t *pu64Pts, bool *pbKey,
                               bool *pbVideo);
    /// Gives a frame back.
    int32_t (*pfnReadReleaseFrame)(void *pReader, uint8_t *pu8Data);
    /// Moves the read position, in whole seconds.
    int32_t (*pfnReadSeek)(void *pReader, uint32_t u32Seconds);
    /// Closes the file and frees the reader. 0; -1 for a null reader.
    int32_t (*pfnReadClose)(void *pReader);
    /// Encodes one I420 picture into a JPEG file.
    int32_t (*pfnSaveYuvToJpeg)(const char *pszPath, const uint8_t *pu8Yuv, int32_t s32Width, int32_t s32Height);
    /// Bytes written so far into the writer's file; -1 for a null writer.
    int64_t (*pfnGetWriteBytes)(void *pWriter);
};

/// FFmpeg: Matroska, MPEG-TS, MP4 and MOV, and raw AAC for reading. Sessions and replays use this one.
extern QN_API const tagQN_MEDIA_API_S qn_media_api_ffmpeg;
/// WAV placeholder: keeps the shape, writes nothing, has no reader.
extern QN_API const tagQN_MEDIA_API_S qn_media_api_wav;
/// WAV placeholder under its pre-allocating name.
extern QN_API const tagQN_MEDIA_API_S qn_media_api_wav_prealloc;

/// FFmpeg's short name of a container's muxer and demuxer, a static text; "matroska" for every unknown value.
QN_API const char *getMuxerByFmt(QN_FILE_FMT_E enFormat);

/// Creates a media file. See tagQN_MEDIA_API_S::pfnWriteOpen.
///
/// Time stamps: MP4 and MOV count frames (u32Fps, 1024 samples per AAC frame) and ignore the host's pts; the others
/// take pts relative to the first one of the file, shared by both streams. A first pts of 0 counts as not seen, so a
/// host begins above 0. dts is pts: no B-frames.
///
/// H.264 takes stSps and stPps as extradata. H.265 has its parameter sets in-band only, except in Matroska, whose
/// header cannot be written without them: there, stSps and stPps together must hold a VPS, an SPS and a PPS, and no SPS
/// that ends before its short-term reference picture sets do.
///
/// \param pstParam  the parameters; borrowed for the call.
/// \param pszPath   the file; an existing one is truncated.
///
/// \return the writer, ended by FFMUXER_WriteClose; null after a logged error, with the file removed.
///
/// Threads: any; a writer has no lock, calls on one are serialised by the caller.
/// Blocks:  on the file system.
QN_API void *FFMUXER_WriteOpen(tagQN_RECORD_PARAM_S *pstParam, const char *pszPath);

/// Writes one frame; the data is copied. A frame of a stream that is not enabled is ignored.
///
/// H.265 in MP4 and MOV: the parameter sets of the file are those of its first video frame. One with an SPS that ends
/// before its short-term reference picture sets do is left out, with one warning, and so is the video up to the next
/// frame marked key: FFmpeg would be busy with such a set for minutes when the file is finished.
///
/// \return 0, also when FFmpeg could not write; -1 for a null writer.
QN_API int32_t FFMUXER_WriteFrame(void *pWriter, const unsigned char *pu8Data, uint32_t u32Len, uint64_t u64Pts,
                                  bool bKey, bool bVideo);

/// Writes the trailer, closes the file, frees the writer. 0; -1 for a null writer.
QN_API int32_t FFMUXER_WriteClose(void *pWriter);

/// Current write position in bytes; -1 for a null writer.
QN_API int64_t FFMUXER_GetWriteBytes(void *pWriter);

/// Opens a file for reading and picks the first H.264 or H.265 stream and the last AAC or MP3 stream before it (or
/// the last of all, without video).
///
/// \param pstParam  not read; may be null.
///
/// \return the reader, ended by FFMUXER_ReadClose; null after a logged error.
///
/// Threads: any; a reader has no lock, calls on one are serialised by the caller.
QN_API void *FFMUXER_ReadOpen(tagQN_REPLAY_PARAM_S *pstParam, const char *pszPath, QN_FILE_FMT_E enFormat);

/// Fills the words of the chosen streams; others keep the caller's contents. 0; -1 for a null reader.
QN_API int32_t FFMUXER_ReadMetadata(void *pReader, tagQN_METADATA_S *pstMetadata);

/// Hands out the next packet of any stream. One may be outstanding; release it before the next.
///
/// \param ppu8Data  [out] the bytes; the reader's, valid until released, or until a seek or close.
/// \param pu32Size  [out] their number.
/// \param pu64Pts   [out] presentation time in the time base of the packet's stream, as the demuxer gives it.
/// \param pbKey     [out] a key frame.
/// \param pbVideo   [out] of the chosen video stream.
///
/// \return 0 done; 1 null reader, or a frame is outstanding (logged); 8 read error (logged); 9 end of file; 10 out of
///         memory (logged). Outputs are untouched on failure.
QN_API int32_t FFMUXER_ReadGetFrame(void *pReader, uint8_t **ppu8Data, uint32_t *pu32Size, uint64_t *pu64Pts,
                                    bool *pbKey, bool *pbVideo);

/// Releases the outstanding frame. 0 released, and also when the pointer is not its own (logged; the frame stays out);
/// 1 null reader; -1 nothing outstanding (logged).
QN_API int32_t FFMUXER_ReadReleaseFrame(void *pReader, uint8_t *pu8Data);

/// Seeks to the key frame at or before a time in whole seconds; an outstanding frame is released.
///
/// \return FFmpeg's result, 0 or more on success; -1 for a null reader.
QN_API int32_t FFMUXER_ReadSeek(void *pReader, uint32_t u32Seconds);

/// Closes the file and frees the reader with its outstanding frame. 0; -1 for a null reader.
QN_API int32_t FFMUXER_ReadClose(void *pReader);

/// Encodes one full-range I420 picture (Y plane, U plane, V plane, tightly packed) into a JPEG file.
///
/// \param pszPath    the file; created or truncated.
/// \param pu8Yuv     width * height * 3 / 2 bytes; borrowed for the call.
/// \param s32Width   width in pixels, even.
/// \param s32Height  height in pixels, even, or 1.
///
/// \return 0 done; -1 pu8Yuv is null; FFmpeg's negative code, or -1, after a logged error. Five failures that carry no
///         code of FFmpeg's (encoder missing, out of memory) give 0 as well; the log tells them apart.
///
/// Threads: any, at the same time on different paths.
QN_API int32_t FFMUXER_SaveYuvToJpeg(const char *pszPath, const uint8_t *pu8Yuv, int32_t s32Width, int32_t s32Height);

/// Placeholder: a one-byte object as the writer, and no file.
QN_API void *WAV_WriteOpen(tagQN_RECORD_PARAM_S *pstParam, const char *pszPath);
/// Placeholder, the same as WAV_WriteOpen.
QN_API void *WAV_WriteOpenPreAlloc(tagQN_RECORD_PARAM_S *pstParam, const char *pszPath);
/// Placeholder: writes nothing. 0; -1 for a null writer.
QN_API int32_t WAV_WriteFrame(void *pWriter, const unsigned char *pu8Data, uint32_t u32Len, uint64_t u64Pts, bool bKey,
                              bool bVideo);
/// Placeholder: 0; -1 for a null writer. The one-byte object is not freed.
QN_API int32_t WAV_WriteClose(void *pWriter);

} // namespace libquarrin

#endif
