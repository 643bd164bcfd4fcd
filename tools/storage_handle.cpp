// Storage handle of the tool, and the command runner that goes with it.

#include "storage_handle.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

#include "bu_platform.h"
#include "quarrin_platform.h"

// The library's device: one that exists, so that start-up does not take the folder for an orphaned mount.
static constexpr const char *STORAGE_DEVICE = "/dev/null";
static constexpr uint64_t STORAGE_QUOTA_LIMIT = 0xffffffffu; // the library's quota has 32 bits

/// Runs nothing. The tool works on a plain folder with the user's files in it, and that folder may be a mount point of
/// somebody's: it must never be unmounted, mounted over or removed. The folder for recordings is the tool's own doing,
/// whatever signs stand in its path.
extern "C" int BU_RunCmd(const char *cmd)
{
    return strncmp(cmd, "mkdir -p ", 9) == 0 && strchr(cmd, ';') == nullptr ? 0 : 1;
}

static bool ParseUnit(const char *pszUnit, uint64_t &u64Factor)
{
    static const char s_acUnits[] = "KMG";
    u64Factor = 1;
    if (*pszUnit == '\0')
    {
        return true;
    }
    const char *pszFound = strchr(s_acUnits, *pszUnit);
    if (pszFound == nullptr || (pszUnit[1] != '\0' && strcmp(pszUnit + 1, "B") != 0))
    {
        return false;
    }
    u64Factor = 1ull << (10 * (pszFound - s_acUnits + 1));
    return true;
}

bool TOOL_STORAGE_ParseQuota(const std::string &strText, tagTOOL_QUOTA_S &stQuota, std::string &strError)
{
    char *pszUnit = nullptr;
    errno = 0;
    const bool bDigit = !strText.empty() && strText[0] >= '0' && strText[0] <= '9';
    const uint64_t u64Number = bDigit ? strtoull(strText.c_str(), &pszUnit, 10) : 0;
    uint64_t u64Factor = 0;
    const bool bPercent = bDigit && strcmp(pszUnit, "%") == 0;
    if (u64Number == 0 || errno != 0 || (!bPercent && !ParseUnit(pszUnit, u64Factor)) || (bPercent && u64Number > 100))
    {
        strError = "--quota is a size above 0 such as 500M, or 1% to 100%, not " + strText;
        return false;
    }
    if (bPercent)
    {
        stQuota.u32Percent = static_cast<uint32_t>(u64Number);
        return true;
    }
    if (u64Number > STORAGE_QUOTA_LIMIT / u64Factor)
    {
        strError = "--quota " + strText + " is not below 4G; give a percentage of the file system instead, such as 80%";
        return false;
    }
    stQuota.u32Bytes = static_cast<uint32_t>(u64Number * u64Factor);
    return true;
}

static bool IsFolder(const std::string &strPath)
{
    struct stat stStat = {};
    return stat(strPath.c_str(), &stStat) == 0 && S_ISDIR(stStat.st_mode);
}

static bool MakeFolder(const std::string &strPath, std::string &strError)
{
    if (mkdir(strPath.c_str(), 0777) == 0 || (errno == EEXIST && IsFolder(strPath)))
    {
        return true;
    }
    strError = "cannot make the folder " + strPath + ": " + strerror(errno == EEXIST ? ENOTDIR : errno);
    return false;
}

/// The library refuses a folder of recordings that leads out of DIR, whoever put it there; DIR itself may be a link.
/// What is missing is no failure.
static bool IsOfItsOwn(const std::string &strDir, std::string &strError)
{
    const std::string strFolder = strDir + "/" + TOOL_STORAGE_FOLDER;
    struct stat stDir = {};
    struct stat stFolder = {};
    if (stat(strDir.c_str(), &stDir) != 0 || lstat(strFolder.c_str(), &stFolder) != 0)
    {
        return true;
    }
    if (S_ISLNK(stFolder.st_mode))
    {
        strError = "the folder " + strFolder + " is a symbolic link; recordings lie in a folder of their own";
    }
    else if (S_ISDIR(stFolder.st_mode) && stFolder.st_dev != stDir.st_dev)
    {
        strError = "the folder " + strFolder + " is on another file system than " + strDir + "; name that one as DIR";
    }
    return strError.empty();
}

bool TOOL_STORAGE_Prepare(const std::string &strDir, std::string &strError)
{
    const std::string strFolder = strDir + "/" + TOOL_STORAGE_FOLDER;
    if (!MakeFolder(strDir, strError) || !IsOfItsOwn(strDir, strError) || !MakeFolder(strFolder, strError))
    {
        return false;
    }
    if (access(strFolder.c_str(), R_OK | W_OK | X_OK) != 0)
    {
        strError = "cannot write into the folder " + strFolder + ": " + strerror(errno);
        return false;
    }
    return true;
}

/// Without a quota nothing is ever deleted: the whole file system is the limit and automatic deletion is off, so that a
/// full card stops a recording and old files stay.
static libquarrin::tagQN_VOLUME_PARAM_S VolumeOf(const tagTOOL_QUOTA_S &stQuota)
{
    libquarrin::tagQN_VOLUME_PARAM_S stVolume;
    const bool bGiven = stQuota.u32Bytes != 0 || stQuota.u32Percent != 0;
    stVolume.bEnable = 1;
    stVolume.pszFolder = TOOL_STORAGE_FOLDER;
    stVolume.u32QuotaType = stQuota.u32Bytes != 0 ? 0 : 1;
    stVolume.u32QuotaBytes = stQuota.u32Bytes;
    stVolume.u32QuotaPercent = bGiven ? stQuota.u32Percent : 100;
    stVolume.bAutoDelete = bGiven && !stQuota.bNoAutoDelete;
    return stVolume;
}

TOOL_STORAGE TOOL_STORAGE_Open(const std::string &strDir, const tagTOOL_QUOTA_S &stQuota, std::string &strError)
{
    char *pszAbsolute = realpath(strDir.c_str(), nullptr);
    const std::string strAbsolute = pszAbsolute != nullptr ? pszAbsolute : "";
    const int32_t s32Error = errno;
    free(pszAbsolute);
    if (strAbsolute.empty() || !IsFolder(strAbsolute))
    {
        strError = "no folder " + strDir + ": " + strerror(strAbsolute.empty() ? s32Error : ENOTDIR);
        return nullptr;
    }
    if (!IsOfItsOwn(strDir, strError))
    {
        return nullptr;
    }
    libquarrin::tagQN_STORAGE_PARAM_S stParam;
    stParam.strDevice = STORAGE_DEVICE;
    stParam.s32PartitionNo = 1;
    stParam.pszMountPoint = strAbsolute;
    stParam.astVolume[libquarrin::QN_VOLUME_ID_E_0] = VolumeOf(stQuota);
    // As every host does; with this device the folder stands for a card, and nothing of it is removed.
    (void)QN_PLATFORM_RemoveLeftover(STORAGE_DEVICE, strAbsolute.c_str());
    libquarrin::tagQN_HANDLER_S *pHandle = nullptr;
    const uint32_t u32Result = libquarrin::QN_Init(&stParam, pHandle);
    TOOL_STORAGE pStorage(pHandle);
    libquarrin::QN_STATE_E enState = libquarrin::QN_STATE_E_UNPLUGIN;
    if (u32Result != 0 || libquarrin::QN_GetState(pHandle, &enState) != 0 || enState != libquarrin::QN_STATE_E_MOUNTED)
    {
        strError = "cannot use the folder " + strDir + " as storage";
        return nullptr;
    }
    return pStorage;
}

std::string TOOL_STORAGE_Folder(const libquarrin::tagQN_HANDLER_S *pHandle)
{
    return pHandle->pszMountPoint + "/" + pHandle->astVolume[libquarrin::QN_VOLUME_ID_E_0].pszFolder;
}
