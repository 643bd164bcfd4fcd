// Record sessions: frames in, a chain of media files out.
#ifndef LIBQUARRIN_RECORD_H
#define LIBQUARRIN_RECORD_H

#include <atomic>
#include <ctime>
#include <pthread.h>
#include <string>

#include "libquarrin/handle.h"
#include "libquarrin/media.h"

namespace libquarrin
{

struct tagQN_RECORD_PRIVATE_S;

/// State of a record session.
enum QN_RECORD_STATE_E : int32_t
{
    QN_RECORD_STATE_IDLE = 0,     ///< made or stopped; no file open
    QN_RECORD_STATE_WAIT_KEY = 1, ///< started; file open, waits for the first key frame
    QN_RECORD_STATE_RUNNING = 2,  ///< writes frames
    QN_RECORD_STATE_PAUSED = 3,   ///< drops frames
    QN_RECORD_STATE_RESUMED = 4,  ///< waits for a key frame
    QN_RECORD_STATE_STOPPING = 5, ///< being stopped, or the card was pulled: drops frames until QN_RecordStop
};

/// One record session. Made by QN_RecordInit, freed by QN_RecordDestroy; it always records into volume 0.
struct tagQN_RECORD_HANDLER_S
{
    // Constant after QN_RecordInit
    tagQN_HANDLER_S *pstHandle = nullptr;         ///< borrowed; outlives the session
    QN_VOLUME_ID_E enVolumeId = QN_VOLUME_ID_E_0; ///< always 0
    tagQN_RECORD_PARAM_S stParam = {};            ///< copy; its parameter sets are owned when video is enabled

    // Guarded by stMutex
    time_t tFileStart = 0;      ///< second at which the current file was begun
    time_t tRunStart = 0;       ///< second of the key frame that began the current run; 0 before the first
    uint32_t u32RunSeconds = 0; ///< seconds of the runs before the last pause in the current file
    std::string strNameTag;     ///< comment of the file names; constant while the session runs
    std::string strFilePath;    ///< path of the file being written
    std::atomic<QN_RECORD_STATE_E> enRecordState{QN_RECORD_STATE_IDLE}; ///< also read without the lock
    pthread_mutex_t stMutex = PTHREAD_MUTEX_INITIALIZER;                ///< the session mutex; never destroyed

    const tagQN_MEDIA_API_S *pstMediaApi = nullptr; ///< back end; constant while the session runs
    void *pWriter = nullptr;                        ///< writer of the current file, or null

    tagQN_RECORD_PRIVATE_S *pstPrivate = nullptr; ///< owned; the library's own
};

/// Payload of QN_EVENT_E_RECORD_AUTO_SPLIT: a file that was split off and waits to be finished.
struct tagQN_AUTO_SPLIT_EVENT_S
{
    tagQN_RECORD_HANDLER_S *pstRecord = nullptr; ///< the session; borrowed, not touched once the file is finished
    void *pWriter = nullptr;                     ///< writer of the file; owned by the event
    std::string strFilePath;                     ///< in-progress path of the file
    time_t tStart = 0;                           ///< when the file was begun
    time_t tEnd = 0;                             ///< when it was split off

    // The library's own; zero in an event that somebody else made
    int32_t s32Finish = 0;     ///< 0 to be finished, 1 being finished, 2 finished
    bool bPathTaken = false;   ///< the path belongs to the next file already: only the writer is closed
    bool bPathClaimed = false; ///< the path stands in the handle's list of files in progress
    const tagQN_MEDIA_API_S *pstMediaApi = nullptr; ///< back end of the writer; null: the session's
    std::string strNameTag;                         ///< name tag of the file, when pstMediaApi is set
};

/// Makes a session on a mounted card.
///
/// Two refusals return 0 with a null session, after a logged error: a container that is no recording container
/// (enFormat above 3), and volume 0 not enabled.
///
/// \param pHandle   the handle; outlives the session.
/// \param pParam    the parameters; borrowed, copied with their parameter sets.
/// \param pSession  [out] the session; must be null on entry.
///
/// \return 0 done, or refused as above; 1 pHandle is null or pSession is set; 2 pParam is null; 3 not mounted; 6 out
///         of memory.
///
/// Threads: any.
/// Locks:   mutexRecordList.
/// Owns:    the session is the caller's until QN_RecordDestroy (or QN_Destroy).
QN_API uint32_t QN_RecordInit(tagQN_HANDLER_S *pHandle, tagQN_RECORD_PARAM_S *pParam,
                              tagQN_RECORD_HANDLER_S *&pSession);

/// Opens the first file; writing begins with the first key frame.
///
/// Two sessions of a handle never share a path: when another one has begun a file of this name in this second, the call
/// waits for a second of its own. A stop or a destroy of the session meanwhile ends it with 3 and nothing is begun, and
/// so does a card that is pulled; the session is busy for another start. It gives up when the clock stands still for
/// three seconds.
///
/// \param pSession    the session, idle.
/// \param pszNameTag  comment for the file names; null for none. Copied.
///
/// \return 0 started; 1 pSession is null; 3 not mounted (logged), not idle (at once), or ended by somebody; 6 out of
///         memory; 7 the file
///         could not be opened, the volume's folder is refused (see QN_ReplayListFile), or the clock stands still (both
///         logged).
///
/// Threads: any.
/// Locks:   stMutex.
/// Blocks:  on the file system; while an unmount command runs; for a second of its own as said above, one for each
///          session that wants the same name.
QN_API uint32_t QN_RecordStart(tagQN_RECORD_HANDLER_S *pSession, const char *pszNameTag);

/// Drops frames until QN_RecordResume and a key frame after it; the file stays open.
///
/// A pause before the first key frame counts the whole time since 1970 as recorded, so that with splitting on the first
/// key frame after the resume begins a new file.
///
/// \return 0 done; 1 pSession is null; 3 the session neither waits for its first key frame nor runs.
///
/// Threads: any. Locks: stMutex.
QN_API uint32_t QN_RecordPause(tagQN_RECORD_HANDLER_S *pSession);

/// Ends a pause; writing begins again with the next key frame. 0 done; 1 pSession is null; 3 not paused.
///
/// Threads: any. Locks: stMutex.
QN_API uint32_t QN_RecordResume(tagQN_RECORD_HANDLER_S *pSession);

/// Ends the recording: finishes the file (see QN_RecordClosePostProcess). A file shorter than 5 s is removed.
///
/// Also ends QN_RECORD_STATE_STOPPING after the card was pulled, so that the session can be started again, and a start
/// that waits: none begins to record once this has returned.
///
/// \return 0 done; 1 pSession is null.
///
/// Threads: any. Locks: stMutex.
/// Blocks:  for the trailer.
QN_API uint32_t QN_RecordStop(tagQN_RECORD_HANDLER_S *pSession);

/// QN_RecordStop with bLock true; with false for a caller that holds stMutex.
QN_API uint32_t QN_RecordStopNoLock(tagQN_RECORD_HANDLER_S *pSession, tagBU_BOOL bLock);

/// Bytes written so far into the current file; -1 when none is open. The spelling is the promised one.
///
/// Threads: any, also while frames are written, split and stopped.
/// Blocks:  for one write of a frame, or the opening of a file at a split.
QN_API int64_t QN_REcordGetWriteBytes(tagQN_RECORD_HANDLER_S *pSession);

/// Frees a session. A running one is stopped first, with a warning; files of it that were split off are finished.
///
/// \param pSession  [in, out] set to null; null does nothing.
/// \param bUnlink   take it out of the handle's list; QN_Destroy passes false.
///
/// \return 0.
///
/// Threads: any; no other call on the session begins from then on. Those that have begun are waited for.
/// Locks:   stMutex, mutexRecordList.
/// Blocks:  for trailers, for the calls on the session, and while the event queue is full (holding no lock then).
QN_API uint32_t QN_RecordDestroy(tagQN_RECORD_HANDLER_S *&pSession, tagBU_BOOL bUnlink);
/// QN_RecordDestroy with bUnlink true.
QN_API uint32_t QN_RecordDestroy(tagQN_RECORD_HANDLER_S *&pSession);

/// Switches automatic deletion of a volume on or off.
///
/// Switching it on while the storage is full lets recording go on at once; otherwise the quota is checked in the
/// background.
///
/// \return 0 done; 1 pHandle is null; 3 no such volume; 6 out of memory, with nothing switched.
///
/// Threads: any.
/// Blocks:  while the event queue is full.
QN_API uint32_t QN_RecordStorageUpdate(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, tagBU_BOOL bAutoDelete);

/// Hands in one encoded frame.
///
/// Dropped without a message, with result 0: frames of a session that is not running, frames before the awaited key
/// frame, frames while the storage is full, and frames that the file system refuses (watch
/// QN_REcordGetWriteBytes and QN_GetState). With splitting on, a key frame at or after the split time begins a new
/// file.
///
/// H.265 in MP4 and MOV: a key frame whose SPS is cut (see FFMUXER_WriteFrame) begins no file; the next sound one does,
/// and what comes before it is dropped, or belongs to the file that was to be split. One warning for each file.
///
/// \param pSession  the session.
/// \param pu8Data   Annex B access unit with four-byte start codes, or AAC with an ADTS header; borrowed, copied.
/// \param u32Len    bytes.
/// \param u64Pts    presentation time in the stream's time base; begins above 0; no B-frames.
/// \param bKey      a file may begin here: a key frame, or any AAC frame of an audio-only session.
/// \param bVideo    video, otherwise audio.
///
/// A frame that there is no memory for is dropped, and a split that there is no memory for waits for the next key
/// frame.
///
/// \return 0; 1 pSession is null; 2 pu8Data is null.
///
/// Threads: any; calls on one session are serialised by its stMutex.
/// Locks:   stMutex.
/// Blocks:  on the file system, and while the event queue is full (holding no lock then).
QN_API uint32_t QN_RecordWriteFrame(tagQN_RECORD_HANDLER_S *pSession, unsigned char *pu8Data, uint32_t u32Len,
                                    uint64_t u64Pts, tagBU_BOOL bKey, tagBU_BOOL bVideo);

/// Finishes a file: closes the writer; removes the file when it is shorter than 5 seconds or empty, otherwise gives it
/// its start-to-end name. Without memory for that name it keeps the one that it has (logged).
///
/// \param pSession     the session; its constant fields are read.
/// \param pWriter      the writer; freed.
/// \param strFilePath  in-progress path.
/// \param tStart       begin, seconds since the epoch.
/// \param tEnd         end, seconds since the epoch.
///
/// \return 0; 1 pWriter is null (the file is left as it is).
///
/// Threads: the event thread for a split, the host's for a stop.
/// Blocks:  for the trailer.
QN_API uint32_t QN_RecordClosePostProcess(tagQN_RECORD_HANDLER_S *pSession, void *pWriter,
                                          const std::string &strFilePath, time_t tStart, time_t tEnd);

/// The same on private copies of everything that it reads of the session; for hosts that finish files on a thread of
/// their own. The spelling is the promised one.
QN_API uint32_t QN_RecordClosePostProcessAync(tagQN_RECORD_HANDLER_S *pSession, void *pWriter,
                                              const std::string &strFilePath, time_t tStart, time_t tEnd);

/// Moves a damaged file of a volume aside: "clip.a.mkv" becomes "clip.To.temp.ts", which replaces a file of that name.
/// Anything else of that name, a folder or a link, is left alone and nothing is moved.
///
/// \param pszFileName  file name inside the volume's folder.
///
/// \return 1 pHandle is null; 3 not mounted, or the volume is not enabled (both logged); 7 the new name is taken by
///         something that is no file, or the volume's folder is refused (both logged); 6 out of memory; otherwise
///         BU_RunCmd's result.
///
/// Threads: any.
/// Blocks:  for the command.
QN_API uint32_t QN_RecordErrorFileClear(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, const char *pszFileName);

} // namespace libquarrin

#endif
