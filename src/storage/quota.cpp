// Quota: keeps the files of one volume below its quota, by deleting the oldest or by declaring the storage full.
// Threads: event thread. Locks: the card gate, shared; mutexQuota as a leaf; the full flag is atomic. Not here: listing
// files (catalogue.cpp).

#include "libquarrin/quota.h"

#include <cstdio>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "libquarrin/catalogue.h"
#include "libquarrin/naming.h"
#include "libquarrin/storage.h"
#include "ring/handle_private.h"
#include "storage/card.h"
#include "storage/quota.h"
#include "storage/scan_folder.h"
#include "storage/texts.h"
#include "storage/volume_folder.h"
#include "util/line.h"
#include "util/lock.h"
#include "util/log.h"
#include "util/pause.h"

namespace libquarrin
{

constexpr uint32_t QUOTA_TYPE_PERCENT = 1;
constexpr int32_t THROTTLE_CALLS = 200;  // a check at the latest
constexpr time_t THROTTLE_SECONDS = 119; // up to this age the last check counts
constexpr int64_t QUERY_PAUSE_US = 1000000;
constexpr const char *CHECK_FUNC = "QN_STORAGE_QuotaCheck"; // tag of a check's lines, whoever brought it about

/// The figures of one check, in bytes.
struct tagQN_QUOTA_SUM_S
{
    uint64_t u64Quota;
    uint64_t u64Used;
    uint32_t u32Reserve;
};

std::shared_ptr<void> QN_QUOTA_MakePayload(QN_VOLUME_ID_E enVolume)
try
{
    return std::make_shared<QN_VOLUME_ID_E>(enVolume);
}
catch (const std::exception &)
{
    return nullptr;
}

static bool IsVolume(QN_VOLUME_ID_E enVolume)
{
    return enVolume >= QN_VOLUME_ID_E_0 && enVolume <= QN_VOLUME_ID_E_2;
}

int32_t QN_STORAGE_QuotaInit(tagQN_HANDLER_S *pHandle)
{
    QN_CARD_CommandBegin(pHandle); // a host may unmount at once after it mounted
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        if (pHandle->astVolume[i].bEnable == 0)
        {
            continue;
        }
        const auto enVolume = static_cast<QN_VOLUME_ID_E>(i);
        // A card that is unmounted already gets none: they would make its directory again, which the next start takes
        // for a mounted card. Asked before each, since an unmount gives up a command that hangs.
        if (!QN_CARD_IsUnmounted(pHandle) && QN_VOLUME_MayBeMade(pHandle, enVolume))
        {
            UTIL_LINE_S stLine;
            const char *pszLine = UTIL_LINE_Format(stLine, "mkdir -p %s/%s", pHandle->pszMountPoint.c_str(),
                                                   pHandle->astVolume[i].pszFolder.c_str());
            // A folder that is missing shows when a file is opened in it.
            (void)(pszLine == nullptr ? -1 : BU_RunCmd(pszLine));
        }
        pHandle->astQuotaLastCheck[i] = {};
    }
    QN_CARD_CommandEnd(pHandle);
    return 0;
}

static uint64_t QuotaBytes(const tagQN_VOLUME_PARAM_S &stVolume, uint64_t u64Total)
{
    if (stVolume.u32QuotaType == QUOTA_TYPE_PERCENT)
    {
        return stVolume.u32QuotaPercent * u64Total / 100;
    }
    return stVolume.u32QuotaBytes;
}

static tagQN_TEXT_S SumText(const tagQN_QUOTA_SUM_S &stSum)
{
    const tagQN_TEXT_S stUsed = QN_TEXT_Size(stSum.u64Used);
    const tagQN_TEXT_S stLimit = QN_TEXT_Size(stSum.u64Quota - stSum.u32Reserve);
    const tagQN_TEXT_S stQuota = QN_TEXT_Size(stSum.u64Quota);
    tagQN_TEXT_S stText = {};
    (void)snprintf(stText.szText, sizeof(stText.szText), "%.24s|%.24s|%.24s", stUsed.szText, stLimit.szText,
                   stQuota.szText); // a size has 16 characters at most
    return stText;
}

static bool IsFull(const tagQN_QUOTA_SUM_S &stSum)
{
    const int64_t s64Remaining = static_cast<int64_t>(stSum.u64Quota - stSum.u64Used);
    return s64Remaining <= static_cast<int64_t>(stSum.u32Reserve);
}

// Oldest first, until there is room or no file is left. The files are those of stFolder; their paths lead there
// as long as nobody has put another folder, or another card, in its place.
static void DeleteOldest(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, const struct stat &stFolder,
                         const std::vector<tagQN_FILE_INFO_S> &vecFiles, tagQN_QUOTA_SUM_S &stSum)
try
{
    for (const tagQN_FILE_INFO_S &stFile : vecFiles)
    {
        if (!IsFull(stSum) || !QN_VOLUME_IsStill(pHandle, enVolume, stFolder))
        {
            break;
        }
        // Deleting a file that is being written frees nothing and loses the recording; so nobody begins it meanwhile.
        const QN_CLAIM claim = QN_CARD_ClaimScoped(pHandle, stFile.strPath);
        if (claim == nullptr)
        {
            continue;
        }
        QN_LOG_INFO_AS(CHECK_FUNC, "Quota[%d] remove %s", static_cast<int>(enVolume), stFile.strPath.c_str());
        (void)remove(stFile.strPath.c_str()); // a file that stays still counts as freed
        stSum.u64Used -= stFile.u64Size;
    }
}
catch (const std::exception &)
{
    // No memory for a claim: the next check goes on.
}

// Without automatic deletion. The host may switch it on while the check runs: whoever is later sees the other's word.
static bool StoreFull(tagQN_HANDLER_S *pHandle, const tagQN_VOLUME_PARAM_S &stVolume)
{
    pHandle->enStorageState = QN_STORAGE_STATE_E_FULL;
    if (__atomic_load_n(&stVolume.bAutoDelete, __ATOMIC_SEQ_CST))
    {
        pHandle->enStorageState = QN_STORAGE_STATE_E_NORMAL;
        return false;
    }
    return true;
}

// When the volume is to be checked again because nobody knows how large its file system is; 0: it is not.
static void SetAgain(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, int64_t s64AgainUs)
{
    const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->pstPrivate->pQuota->mutexQuota);
    pHandle->pstPrivate->pQuota->as64AgainUs[enVolume] = s64AgainUs;
}

// The files of an open folder. False: no memory.
static bool List(const tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, UTIL_FD &&folder,
                 std::vector<tagQN_FILE_INFO_S> &vecFiles)
try
{
    return QN_CATALOGUE_ScanOpen(std::move(folder), QN_VOLUME_Path(pHandle, enVolume).c_str(), vecFiles) == 0;
}
catch (const std::exception &)
{
    return false;
}

// A check of an enabled volume; the caller holds the card gate. Without memory for the list nothing is done, and the
// volume is checked again.
static void CheckGated(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume)
{
    const tagQN_VOLUME_PARAM_S &stVolume = pHandle->astVolume[enVolume];
    UTIL_FD folder; // before the total, so that both are of the card that DeleteOldest finds in its place
    struct stat stFolder = {};
    const bool bFolder = QN_VOLUME_OpenFolder(pHandle, enVolume, folder) == QN_VOLUME_FOLDER_E_GOOD &&
                         fstat(folder.s32Fd, &stFolder) == 0;
    const uint64_t u64Total = static_cast<uint64_t>(QN_STORAGE_GetMountedTotalSize(pHandle->pszMountPoint.c_str()));
    const bool bKnown = stVolume.u32QuotaType != QUOTA_TYPE_PERCENT || u64Total != 0;
    tagQN_QUOTA_SUM_S stSum = {QuotaBytes(stVolume, u64Total), 0, stVolume.u32ReserveBytes};
    const bool bAutoDelete = __atomic_load_n(&stVolume.bAutoDelete, __ATOMIC_SEQ_CST);

    std::vector<tagQN_FILE_INFO_S> vecFiles;
    if (bFolder && !List(pHandle, enVolume, std::move(folder), vecFiles)) // one that is missing or refused is empty
    {
        SetAgain(pHandle, enVolume, UTIL_NowUs() + QUERY_PAUSE_US);
        return;
    }
    for (const tagQN_FILE_INFO_S &stFile : vecFiles)
    {
        stSum.u64Used += stFile.u64Size;
    }
    QN_LOG_INFO_AS(CHECK_FUNC, "Quota[%d] quota:%d %s", static_cast<int>(enVolume), bAutoDelete ? 1 : 0,
                   SumText(stSum).szText);

    pHandle->enStorageState = QN_STORAGE_STATE_E_NORMAL;
    bool bFull = false;
    if (bAutoDelete)
    {
        if (bKnown) // a part of nothing known is no reason to delete what is there
        {
            DeleteOldest(pHandle, enVolume, stFolder, vecFiles, stSum);
        }
        QN_LOG_INFO_AS(CHECK_FUNC, "Quota[%d] remove finsih %s", static_cast<int>(enVolume), SumText(stSum).szText);
    }
    else if (IsFull(stSum))
    {
        bFull = StoreFull(pHandle, stVolume);
    }
    SetAgain(pHandle, enVolume, bFull && !bKnown ? UTIL_NowUs() + QUERY_PAUSE_US : 0);
}

int32_t QN_STORAGE_QuotaCheck(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume)
{
    if (!IsVolume(enVolume) || pHandle->astVolume[enVolume].bEnable == 0)
    {
        return 0;
    }
    const UTIL_RWLOCK card = QN_CARD_Enter(pHandle);
    CheckGated(pHandle, enVolume);
    return 0;
}

// A check that is made on a mounted card or not at all: an unmount may have come first.
static void CheckMounted(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume)
{
    const UTIL_RWLOCK card = QN_CARD_Enter(pHandle);
    if (pHandle->enState.load() != QN_STATE_E_MOUNTED || QN_CARD_IsUnmounted(pHandle))
    {
        SetAgain(pHandle, enVolume, 0);
        return;
    }
    CheckGated(pHandle, enVolume);
}

void QN_QUOTA_CheckAfterMount(tagQN_HANDLER_S *pHandle)
{
    for (int32_t i = QN_VOLUME_COUNT - 1; i >= 0; --i) // the word is that of the last: of the volume recorded into
    {
        if (pHandle->astVolume[i].bEnable != 0)
        {
            CheckMounted(pHandle, static_cast<QN_VOLUME_ID_E>(i));
        }
    }
}

void QN_QUOTA_CheckAgain(tagQN_HANDLER_S *pHandle)
{
    const int64_t s64NowUs = UTIL_NowUs();
    int32_t s32Due = -1; // the volume that waits longest
    {
        const UTIL_LOCK lock = UTIL_LOCK_Scoped(pHandle->pstPrivate->pQuota->mutexQuota);
        const int64_t *ps64Again = pHandle->pstPrivate->pQuota->as64AgainUs;
        for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
        {
            const bool bDue = ps64Again[i] != 0 && ps64Again[i] <= s64NowUs;
            if (bDue && (s32Due < 0 || ps64Again[i] < ps64Again[s32Due]))
            {
                s32Due = i;
            }
        }
    }
    if (s32Due >= 0)
    {
        CheckMounted(pHandle, static_cast<QN_VOLUME_ID_E>(s32Due));
    }
}

int32_t QN_STORAGE_QuotaCheckWithThrottle(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume)
{
    if (pHandle == nullptr || !IsVolume(enVolume))
    {
        return 0;
    }
    struct timeval stNow = {};
    gettimeofday(&stNow, nullptr);
    int32_t &s32Countdown = pHandle->as32QuotaCountdown[enVolume];
    s32Countdown -= 1;
    if (s32Countdown <= 0)
    {
        s32Countdown = THROTTLE_CALLS;
    }
    else if (stNow.tv_sec - pHandle->astQuotaLastCheck[enVolume].tv_sec <= THROTTLE_SECONDS)
    {
        return 0;
    }
    pHandle->astQuotaLastCheck[enVolume] = stNow;
    return QN_STORAGE_QuotaCheck(pHandle, enVolume);
}

int32_t QN_STORAGE_QuotaDestroy(tagQN_HANDLER_S *pHandle)
{
    (void)pHandle; // quota data lives in the handle; this is the place where more would be released
    return 0;
}

} // namespace libquarrin
