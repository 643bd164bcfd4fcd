// The library handle: one per removable device. Hosts pass it around and read its state through the getters.
#ifndef LIBQUARRIN_HANDLE_H
#define LIBQUARRIN_HANDLE_H

#include <atomic>
#include <list>
#include <memory>
#include <pthread.h>
#include <string>
#include <sys/time.h>

#include "libquarrin/params.h"
#include "util_thread/util_thread.h"

namespace libquarrin
{

struct tagQN_RECORD_HANDLER_S;
struct tagQN_REPLAY_HANDLER_S;
struct tagQN_HANDLER_PRIVATE_S;

/// Number of events that a handle's queue holds; a producer waits while it is full.
constexpr uint32_t QN_EVENT_SLOTS = 4;

/// One slot of the event ring.
struct tagQN_EVENT_SLOT_S
{
    QN_EVENT_E enEvent = QN_EVENT_E_HOTPLUG_IN; ///< what happened
    std::shared_ptr<void> spPayload;            ///< shared; kept until a later event takes the slot or the handle goes
};

/// The library handle. Made by QN_Init, freed by QN_Destroy; a record made in any other way is not usable.
struct tagQN_HANDLER_S
{
    // Constant after QN_Init, but for s32PartitionNo (set to 1 by a format) and bAutoDelete (QN_RecordStorageUpdate)
    std::string strDevice;                           ///< see tagQN_STORAGE_PARAM_S
    int32_t s32PartitionNo = 0;                      ///< see tagQN_STORAGE_PARAM_S
    std::string pszMountPoint;                       ///< see tagQN_STORAGE_PARAM_S
    tagQN_VOLUME_PARAM_S astVolume[QN_VOLUME_COUNT]; ///< see tagQN_STORAGE_PARAM_S

    // Atomic; readers take no lock. enState is changed under mutexState only
    std::atomic<QN_STATE_E> enState{QN_STATE_E_UNPLUGIN};                      ///< life of the device
    std::atomic<QN_STORAGE_STATE_E> enStorageState{QN_STORAGE_STATE_E_NORMAL}; ///< fullness
    pthread_mutex_t mutexState = PTHREAD_MUTEX_INITIALIZER;                    ///< serialises changes of enState

    tagPTHREAD_DATA_S stEventThread; ///< the event dispatcher, "%s:event"

    // Guarded by mutexEvent, a leaf lock
    tagQN_EVENT_SLOT_S astEventQueue[QN_EVENT_SLOTS];       ///< the ring
    pthread_mutex_t mutexEvent = PTHREAD_MUTEX_INITIALIZER; ///< guards the ring
    pthread_cond_t condEvent = PTHREAD_COND_INITIALIZER;    ///< broadcast at every change of the ring
    uint32_t u32EventTail = 0;                              ///< slot that the next push writes
    uint32_t u32EventHead = 0;                              ///< slot that the next pop reads
    uint32_t u32EventCount = 0;                             ///< queued events, 0 to QN_EVENT_SLOTS
    std::atomic<bool> bEventExit{false};                    ///< the queue is shut down: pushes are dropped

    // Hotplug thread only, while it runs
    tagPTHREAD_DATA_S stHotplugThread; ///< the uevent listener, "%s:hotplug"
    int32_t s32NetlinkFd = -1;         ///< its socket, -1 when closed
    std::string strDevName;            ///< last component of strDevice; constant after QN_Init

    // Event thread only
    struct timeval astQuotaLastCheck[QN_VOLUME_COUNT] = {}; ///< wall-clock time of the last throttled check
    int32_t as32QuotaCountdown[QN_VOLUME_COUNT] = {};       ///< throttled calls left before a check is forced

    // Guarded by mutexState
    QN_FS_TYPE_E enFormatFsType = {}; ///< file system of the last accepted format; 0 before the first

    pthread_mutex_t mutexRecordList = PTHREAD_MUTEX_INITIALIZER; ///< guards lstRecord
    std::list<tagQN_RECORD_HANDLER_S *> lstRecord;               ///< open record sessions; borrowed
    pthread_mutex_t mutexReplayList = PTHREAD_MUTEX_INITIALIZER; ///< guards lstReplay
    std::list<tagQN_REPLAY_HANDLER_S *> lstReplay;               ///< open replay handlers; borrowed

    tagQN_HANDLER_PRIVATE_S *pstPrivate = nullptr; ///< owned; the library's own
};

} // namespace libquarrin

#endif
