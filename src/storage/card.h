// The card below the mount point: the gate, the names of the files in progress, and the shell commands of ours. An
// unmount finds nothing of ours open there and nothing running: umount would fail, and its line would empty the card.
// Threads: any. Locks: the gate; mutexCard, a leaf.
#ifndef QUARRIN_STORAGE_CARD_H
#define QUARRIN_STORAGE_CARD_H

#include <atomic>
#include <list>
#include <memory>
#include <pthread.h>
#include <string>

#include "libquarrin/handle.h"
#include "util/lock.h"

namespace libquarrin
{

struct tagQN_CARD_S
{
    /// The card gate. Shared: whoever opens a file, walks a folder or runs a host's command below the mount point.
    /// Exclusive: whoever runs the unmount line, until enState tells it. So umount never finds the card busy by us,
    /// and nobody opens a file on a card that is going. Not nested: a waiting unmount goes first.
    pthread_rwlock_t rwCard;

    // Guarded by mutexCard, a leaf lock
    pthread_mutex_t mutexCard = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condCard;                  ///< a command has ended; its clock is CLOCK_MONOTONIC
    std::list<std::string> lstWriting;        ///< paths of files in progress, and of those that quota is deleting
    uint32_t u32Commands = 0;                 ///< commands of ours that run below the mount point
    bool abRefusalTold[QN_VOLUME_COUNT] = {}; ///< that a volume's folder is refused was said since the mount

    std::atomic<bool> bLeftMounted{false}; ///< see QN_CARD_LeaveMounted
    std::atomic<bool> bUnmounted{false};   ///< an unmount line of ours was issued, and nothing mounted since
};

/// The card's record, with its locks; null: no memory.
tagQN_CARD_S *QN_CARD_New();

/// Frees it. Null is none.
void QN_CARD_Delete(tagQN_CARD_S *pCard);

// ---- the gate

/// Passes the gate until the end of the caller's block. Waits while an unmount is under way.
[[nodiscard]] UTIL_RWLOCK QN_CARD_Enter(const tagQN_HANDLER_S *pHandle);

/// Closes the gate until the end of the caller's block. Waits until nobody is behind it.
[[nodiscard]] UTIL_RWLOCK QN_CARD_Close(const tagQN_HANDLER_S *pHandle);

// ---- names: nobody shares the path of a file that a session is writing or quota is deleting

/// Takes a path. False when somebody has it.
bool QN_CARD_Claim(tagQN_HANDLER_S *pHandle, const std::string &strPath);

/// Gives a claimed path back.
void QN_CARD_Release(tagQN_HANDLER_S *pHandle, const std::string &strPath);

/// How a claim ends. The path is borrowed.
struct tagQN_CLAIM_END_S
{
    tagQN_HANDLER_S *pHandle;
    void operator()(const std::string *pstrPath) const
    {
        QN_CARD_Release(pHandle, *pstrPath);
    }
};

/// A claim that is given back at the end of the caller's block; empty when somebody has the path.
using QN_CLAIM = std::unique_ptr<const std::string, tagQN_CLAIM_END_S>;

/// Takes a path until the end of the caller's block; strPath must outlive it.
[[nodiscard]] inline QN_CLAIM QN_CARD_ClaimScoped(tagQN_HANDLER_S *pHandle, const std::string &strPath)
{
    return QN_CLAIM(QN_CARD_Claim(pHandle, strPath) ? &strPath : nullptr, tagQN_CLAIM_END_S{pHandle});
}

// ---- commands: they begin through the gate but do not hold it: one that hangs on a card that was pulled must not keep
// the unmount for good

/// A command begins. Waits while an unmount is under way.
void QN_CARD_CommandBegin(tagQN_HANDLER_S *pHandle);

/// It has ended.
void QN_CARD_CommandEnd(tagQN_HANDLER_S *pHandle);

// ---- mounts

/// The partition to mount. The format worker sets it without a lock.
int32_t QN_CARD_PartitionNo(const tagQN_HANDLER_S *pHandle);

/// Runs the mount line; true when it succeeded. The caller holds mutexState and sets enState.
bool QN_CARD_Mount(tagQN_HANDLER_S *pHandle);

/// Waits for our commands and runs the unmount line. The caller holds mutexState and the gate exclusively, so that no
/// command begins, and sets enState.
///
/// A command is waited for as long as it runs and the device is there; two seconds more once the device has gone.
///
/// \param bGone  a hot-unplug: the device has gone already.
void QN_CARD_Unmount(tagQN_HANDLER_S *pHandle, bool bGone);

/// The last line of ours that succeeded in mounting came before the last unmount line: the mount directory is not the
/// card's. False before the first unmount. To be asked between begin and end of a command, or with the gate held.
bool QN_CARD_IsUnmounted(const tagQN_HANDLER_S *pHandle);

/// A handler takes enState away from a mounted card without an unmount line: nobody would unmount it any more.
void QN_CARD_LeaveMounted(tagQN_HANDLER_S *pHandle);

/// That happened, and neither an unmount line nor a mount came since.
bool QN_CARD_IsLeftMounted(const tagQN_HANDLER_S *pHandle);

/// Since the card was mounted nobody has said yet that a volume's folder is refused; from now on somebody has.
bool QN_CARD_MayTellRefusal(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume);

} // namespace libquarrin

#endif
