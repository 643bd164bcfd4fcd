// The test of a volume's folder. See the header.

#include "storage/volume_folder.h"

#include <climits>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

#include "storage/card.h"
#include "util/log.h"

namespace libquarrin
{

// Without O_DIRECTORY: a link is opened itself, so that it can be told from what is missing.
constexpr int32_t COMPONENT_FLAGS = O_PATH | O_NOFOLLOW | O_CLOEXEC;

// Opens one component below an open directory.
static QN_VOLUME_FOLDER_E Step(UTIL_FD &folder, const char *pszName, dev_t stDevice, const char *&pszWhy)
{
    struct stat stStat = {};
    UTIL_FD next(openat(folder.s32Fd, pszName, COMPONENT_FLAGS));
    if (next.s32Fd < 0 || fstat(next.s32Fd, &stStat) != 0)
    {
        return QN_VOLUME_FOLDER_E_MISSING;
    }
    if (S_ISLNK(stStat.st_mode))
    {
        pszWhy = "its name goes through a symbolic link";
    }
    else if (!S_ISDIR(stStat.st_mode))
    {
        pszWhy = "it is no directory";
    }
    else if (stStat.st_dev != stDevice)
    {
        pszWhy = "it is on another file system than the mount point";
    }
    else
    {
        folder = std::move(next);
        return QN_VOLUME_FOLDER_E_GOOD;
    }
    return QN_VOLUME_FOLDER_E_REFUSED;
}

// Goes down from the mount point, component by component, to the last or to the one above it. A refusal sets pszWhy.
static QN_VOLUME_FOLDER_E Walk(const tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, bool bLast, UTIL_FD &folder,
                               const char *&pszWhy)
{
    struct stat stMount = {};
    folder = UTIL_FD(open(pHandle->pszMountPoint.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (folder.s32Fd < 0 || fstat(folder.s32Fd, &stMount) != 0)
    {
        return QN_VOLUME_FOLDER_E_MISSING;
    }
    const char *pszRest = pHandle->astVolume[enVolume].pszFolder.c_str();
    for (pszRest += strspn(pszRest, "/"); *pszRest != '\0'; pszRest += strspn(pszRest, "/"))
    {
        char szName[NAME_MAX + 1] = {};
        const size_t length = strcspn(pszRest, "/");
        const char *pszName = pszRest;
        pszRest += length;
        if (!bLast && pszRest[strspn(pszRest, "/")] == '\0')
        {
            break;
        }
        if (length > NAME_MAX)
        {
            return QN_VOLUME_FOLDER_E_MISSING;
        }
        memcpy(szName, pszName, length);
        const QN_VOLUME_FOLDER_E enStep = Step(folder, szName, stMount.st_dev, pszWhy);
        if (enStep != QN_VOLUME_FOLDER_E_GOOD)
        {
            return enStep;
        }
    }
    return QN_VOLUME_FOLDER_E_GOOD;
}

// Says why a folder is refused, unless that was said since the card was mounted.
static void Tell(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, const char *pszWhy)
{
    if (!QN_CARD_MayTellRefusal(pHandle, enVolume))
    {
        return;
    }
    QN_LOG_ERROR_AS("QN_VOLUME_OpenFolder", "folder %s/%s is refused: %s", pHandle->pszMountPoint.c_str(),
                    pHandle->astVolume[enVolume].pszFolder.c_str(), pszWhy);
}

std::string QN_VOLUME_Path(const tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume)
{
    return pHandle->pszMountPoint + "/" + pHandle->astVolume[enVolume].pszFolder;
}

QN_VOLUME_FOLDER_E QN_VOLUME_OpenFolder(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, UTIL_FD &folder)
{
    const char *pszWhy = nullptr;
    UTIL_FD found;
    const QN_VOLUME_FOLDER_E enResult = Walk(pHandle, enVolume, true, found, pszWhy);
    if (enResult == QN_VOLUME_FOLDER_E_REFUSED)
    {
        Tell(pHandle, enVolume, pszWhy);
    }
    folder = enResult == QN_VOLUME_FOLDER_E_GOOD ? std::move(found) : UTIL_FD();
    return enResult;
}

QN_VOLUME_FOLDER_E QN_VOLUME_LookAtFolder(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume)
{
    UTIL_FD folder;
    return QN_VOLUME_OpenFolder(pHandle, enVolume, folder);
}

bool QN_VOLUME_IsStill(const tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, const struct stat &stThen)
{
    const char *pszWhy = nullptr;
    UTIL_FD now;
    struct stat stNow = {};
    return Walk(pHandle, enVolume, true, now, pszWhy) == QN_VOLUME_FOLDER_E_GOOD && fstat(now.s32Fd, &stNow) == 0 &&
           stThen.st_dev == stNow.st_dev && stThen.st_ino == stNow.st_ino;
}

bool QN_VOLUME_MayBeMade(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume)
{
    const char *pszWhy = nullptr;
    UTIL_FD above;
    if (Walk(pHandle, enVolume, false, above, pszWhy) != QN_VOLUME_FOLDER_E_REFUSED)
    {
        return true;
    }
    Tell(pHandle, enVolume, pszWhy);
    return false;
}

} // namespace libquarrin
