// Replay: lists the files of a volume and plays one back frame by frame.
#ifndef LIBQUARRIN_REPLAY_H
#define LIBQUARRIN_REPLAY_H

#include <pthread.h>
#include <string>
#include <vector>

#include "libquarrin/catalogue.h"
#include "libquarrin/handle.h"
#include "libquarrin/media.h"

namespace libquarrin
{

/// One file being played back. Made by the open calls, freed by QN_ReplayClose.
struct tagQN_REPLAY_HANDLER_S
{
    tagQN_HANDLER_S *pHandle = nullptr;                      ///< borrowed; outlives the replay
    tagQN_FILE_INFO_S stFileInfo;                            ///< the file
    tagQN_REPLAY_PARAM_S stParam = {};                       ///< copy of the caller's
    pthread_mutex_t mutexReplay = PTHREAD_MUTEX_INITIALIZER; ///< serialises the calls on pReader; never destroyed
    const tagQN_MEDIA_API_S *pstMediaApi = nullptr;          ///< back end of the file's container
    void *pReader = nullptr;                                 ///< guarded by mutexReplay; null once the card was pulled
};

/// Lists a volume, earliest start first.
///
/// \param pHandle   the handle.
/// \param enVolume  the volume.
/// \param pvecFiles [out] the files; untouched when the folder cannot be opened.
///
/// \return 0 done, also without a folder; 1 pHandle is null; 3 not mounted, or the volume is not enabled (both logged);
///         6 out of memory, with no file listed;
///         7 the folder is refused: a link, no directory, or on another file system than the mount point (logged once a
///         mount).
///
/// Threads: any.
/// Blocks:  for one lstat per file; while an unmount command runs.
QN_API uint32_t QN_ReplayListFile(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume,
                                  std::vector<tagQN_FILE_INFO_S> *pvecFiles);

/// Opens a listed file.
///
/// The card is data from strangers: a file that speaks of far more than it can hold is refused. What FFmpeg may take
/// for a large one is the host's to limit, for the whole process, before the first call: av_max_alloc(256 << 20).
///
/// \param pHandle         the handle.
/// \param stInfo          the file: strPath is opened, strExt chooses the container.
/// \param stParam         handed to the back end.
/// \param pReplayHandler  [out] the replay; null on failure.
///
/// \return 0 done; 1 pHandle is null; 3 not mounted; 6 out of memory; 7 file missing, container unknown or not
///         playable, or it could not be opened (all logged).
///
/// Threads: any.
/// Locks:   mutexReplayList.
/// Blocks:  on the file system; while an unmount command runs.
/// Owns:    the replay is the caller's until QN_ReplayClose (or QN_Destroy).
QN_API uint32_t QN_ReplayOpen(tagQN_HANDLER_S *pHandle, tagQN_FILE_INFO_S stInfo, tagQN_REPLAY_PARAM_S stParam,
                              tagQN_REPLAY_HANDLER_S *&pReplayHandler);

/// Opens a file by its bare name, from the first enabled volume that has it and whose folder is not refused (see
/// QN_ReplayListFile). Results as of QN_ReplayOpen; 7 also for a name that cannot be read.
QN_API uint32_t QN_ReplayOpenByFileName(tagQN_HANDLER_S *pHandle, std::string strName, tagQN_REPLAY_PARAM_S stParam,
                                        tagQN_REPLAY_HANDLER_S *&pReplayHandler);

/// Opens a file by its path, which may lie outside the volumes. Results as of QN_ReplayOpenByFileName.
QN_API uint32_t QN_ReplayOpenByFilePath(tagQN_HANDLER_S *pHandle, std::string strPath, tagQN_REPLAY_PARAM_S stParam,
                                        tagQN_REPLAY_HANDLER_S *&pReplayHandler);

/// Fills the stream parameters of the file: H.264 or H.265 size, rate and time base, audio rate and channels.
///
/// \return 0 done; 1 pReplayHandler is null; 8 no open reader (the card was pulled, or the back end has none).
///
/// Threads: any. Locks: mutexReplay.
QN_API uint32_t QN_ReplayReadMetadata(tagQN_REPLAY_HANDLER_S *pReplayHandler, tagQN_METADATA_S *pstMetadata);

/// Reads the next frame; free it before the next one is read. Outputs as of FFMUXER_ReadGetFrame.
///
/// A card that is pulled closes the reader at any moment; a frame that is out then stays readable until QN_ReplayClose.
///
/// \return 0 done; 1 pReplayHandler is null, or a frame is still out; 8 no open reader, or a read error; 9 end of
///         file; 10 out of memory.
///
/// Threads: any. Locks: mutexReplay.
/// Blocks:  on the file system.
QN_API uint32_t QN_ReplayReadFrame(tagQN_REPLAY_HANDLER_S *pReplayHandler, uint8_t **ppu8Data, uint32_t *pu32Size,
                                   uint64_t *pu64Pts, bool *pbKey, bool *pbVideo);

/// Gives a frame back. 0 done, also for a pointer that is not the frame's; 1 pReplayHandler is null; 8 no open reader;
/// all bits set when no frame is out.
///
/// Threads: any. Locks: mutexReplay.
QN_API uint32_t QN_ReplayFreeFrame(tagQN_REPLAY_HANDLER_S *pReplayHandler, uint8_t *pu8Data);

/// Goes to the key frame at or before a time; a frame that is out is given back.
///
/// \param u64Time  seconds from the begin of the file; the low 32 bits count.
///
/// \return 0 (or FFmpeg's result) done; 1 pReplayHandler is null; 8 no open reader.
///
/// Threads: any. Locks: mutexReplay.
QN_API uint32_t QN_ReplaySeekTime(tagQN_REPLAY_HANDLER_S *pReplayHandler, uint64_t u64Time);

/// Closes a replay and frees it.
///
/// \param pReplayHandler  [in, out] set to null.
/// \param bRemove         take it out of the handle's list; QN_Destroy passes false.
///
/// \return 0 done; 1 pReplayHandler is null.
///
/// Threads: any; no other call on the replay begins from then on. Those that have begun are waited for.
/// Locks:   mutexReplay, then mutexReplayList, one after the other.
/// Blocks:  for the calls on the replay.
QN_API int32_t QN_ReplayClose(tagQN_REPLAY_HANDLER_S *&pReplayHandler, tagBU_BOOL bRemove);
/// QN_ReplayClose with bRemove true.
QN_API int32_t QN_ReplayClose(tagQN_REPLAY_HANDLER_S *&pReplayHandler);

} // namespace libquarrin

#endif
