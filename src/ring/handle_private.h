// What a handle and a session hold beyond their public fields.
//
// Lock order, outermost first: mutexState; rwCard; a list's mutex; a session's stMutex; its mutexWriter; mutexFiles,
// mutexEvent or a mutexCalls, all leaves. Nothing of it is held while a caller waits for room in the event ring, or a
// destroy for the calls on its session.
#ifndef QUARRIN_RING_HANDLE_PRIVATE_H
#define QUARRIN_RING_HANDLE_PRIVATE_H

#include <atomic>
#include <list>
#include <memory>
#include <pthread.h>
#include <string>
#include <utility>

#include "libquarrin/handle.h"
#include "libquarrin/record.h"
#include "util/calls.h"

namespace libquarrin
{

/// The way of a format worker back to its handle; it outlives both.
struct tagQN_FORMAT_LINK_S
{
    pthread_mutex_t mutexLink =
        PTHREAD_MUTEX_INITIALIZER;      ///< guards both; held while the worker posts, not while it waits
    tagQN_HANDLER_S *pHandle = nullptr; ///< null once the handle is being destroyed
    uint32_t u32Format = 0;             ///< number of the last format: the worker of an older one is done
};

/// A replay and the frame that was out when an unplug took its reader, since the host may be reading it; null: none
/// was.
using QN_FRAME_OUT = std::pair<const tagQN_REPLAY_HANDLER_S *, void *>;

struct tagQN_HANDLER_PRIVATE_S
{
    /// The card gate. Shared: whoever opens a file, walks a folder or runs a host's command below the mount point.
    /// Exclusive: whoever runs the unmount line, until enState tells it. So umount never finds the card busy by us,
    /// and nobody opens a file on a card that is going. Not nested: a waiting unmount goes first.
    pthread_rwlock_t rwCard;

    // Guarded by mutexFiles, a leaf lock
    pthread_mutex_t mutexFiles = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condFiles;          ///< a file was finished, or a command has ended; its clock is CLOCK_MONOTONIC
    std::list<std::string> lstWriting; ///< paths of files in progress
    std::list<std::shared_ptr<tagQN_AUTO_SPLIT_EVENT_S>> lstSplits; ///< split off and not finished yet
    std::list<QN_FRAME_OUT> lstFramesOut;                           ///< one of each open replay
    uint32_t u32Commands = 0; ///< commands of ours that run below the mount point; they begin through the card gate
    std::atomic<bool> bLeftMounted{false}; ///< see QN_CARD_LeaveMounted
    std::atomic<bool> bUnmounted{false};   ///< an unmount line of ours was issued, and nothing mounted since
    /// When to check a volume again whose file system did not tell its size, or for whose list there was no memory,
    /// CLOCK_MONOTONIC; 0: not.
    int64_t as64QuotaAgainUs[QN_VOLUME_COUNT] = {};
    bool abRefusalTold[QN_VOLUME_COUNT] = {}; ///< that a volume's folder is refused was said since the mount

    // Guarded by mutexEvent
    bool bDispatching = false;                  ///< a handler runs
    pthread_t tidDispatcher = 0;                ///< on this thread
    uint32_t u32Producers = 0;                  ///< calls that wait for room, or have just got it
    std::list<tagQN_EVENT_SLOT_S> lstOwnEvents; ///< posted by handlers into a full ring; they take the next free slots
    std::list<tagQN_EVENT_SLOT_S> lstOwnSpare;  ///< room for them: a handler has done its work when it posts
    uint32_t u32PlugsAhead = 0;                 ///< plug events that are posted, and not taken out yet
    uint32_t u32OutcomesAhead = 0;              ///< outcomes of formats that are queued, or whose handler has not begun
    uint32_t u32OutcomesOld = 0;                ///< so many of them, the first ones, are earlier formats'

    UTIL_CALLS_S stEnds; ///< destroys of sessions and closes of replays; QN_Destroy waits for them

    std::shared_ptr<tagQN_FORMAT_LINK_S> spFormatLink; ///< constant after QN_Init
    bool bNoDispatcher = false; ///< constant after QN_EVENT_Init: no event thread could be started

    /// What the last probe or plug event told of the device; written under mutexEvent, readers take no lock.
    std::atomic<bool> bSeenPresent{false};
    bool bListened = false;     ///< hotplug thread only: a socket was open before
    bool bKernelDevice = false; ///< constant once the monitor runs: the device was a block device at the start
    int64_t s64LookAtMs = 0;    ///< hotplug thread only: when to look at the device again, CLOCK_MONOTONIC; 0: not
};

struct tagQN_RECORD_PRIVATE_S
{
    /// Guards pWriter and the calls on it against QN_REcordGetWriteBytes, which holds nothing else.
    pthread_mutex_t mutexWriter = PTHREAD_MUTEX_INITIALIZER;

    UTIL_CALLS_S stCalls; ///< every call on the session; QN_RecordDestroy waits for them

    // Atomic; readers take no lock
    std::atomic<bool> bStarting{false}; ///< a start is under way: it may be waiting for a second of its own
    std::atomic<uint32_t> u32Stops{0};  ///< stops and destroys so far; changed under stMutex. They end a start

    // Guarded by the session's stMutex
    bool bPathClaimed = false; ///< strFilePath stands in lstWriting for this session
    bool bHasVideo = false;    ///< a frame of video went into the current file
    bool bAwaitKey = false;    ///< a key frame could not begin the video of the file: frames wait for the next one
    bool bDamageSaid = false;  ///< and the log has it, for the file that waits

    bool bOwnsParameterSets = false; ///< constant after QN_RecordInit
};

} // namespace libquarrin

#endif
