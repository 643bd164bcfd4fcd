// Moving a damaged file aside.
// Threads: the host's. Locks: the card gate, shared, before the command runs.

#include <exception>
#include <string>

#include "libquarrin/record.h"
#include "storage/card.h"
#include "storage/new_file.h"
#include "storage/volume_folder.h"
#include "util/log.h"
#include "util/results.h"

namespace libquarrin
{

constexpr size_t COMMAND_BYTES = 511; // Kept: a longer command is cut here

// Inside double quotes the shell gives these four a meaning of their own.
static std::string Quoted(const std::string &strName)
{
    std::string strQuoted;
    for (const char c : strName)
    {
        if (c == '"' || c == '$' || c == '`' || c == '\\')
        {
            strQuoted += '\\';
        }
        strQuoted += c;
    }
    return strQuoted;
}

static uint32_t Move(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, const std::string &strCommand,
                     const std::string &strTarget)
{
    if (QN_VOLUME_LookAtFolder(pHandle, enVolume) == QN_VOLUME_FOLDER_E_REFUSED)
    {
        return QN_RET_OPEN; // said once a mount; mv would move a file of the host
    }
    if (!QN_NEWFILE_IsFreeOrFile(strTarget.c_str()))
    {
        // mv would move the file into the folder that stands there, or that a link leads to.
        QN_LOG_ERROR_AS("QN_RecordErrorFileClear", "%s is no file, nothing is moved", strTarget.c_str());
        return QN_RET_OPEN;
    }
    QN_TRACE("volume_abs_path==%s\n", strCommand.c_str());
    return static_cast<uint32_t>(BU_RunCmd(strCommand.c_str()));
}

uint32_t QN_RecordErrorFileClear(tagQN_HANDLER_S *pHandle, QN_VOLUME_ID_E enVolume, const char *pszFileName)
try
{
    if (pHandle == nullptr)
    {
        return QN_RET_NULL_HANDLE;
    }
    const QN_STATE_E enState = pHandle->enState.load();
    if (enState != QN_STATE_E_MOUNTED)
    {
        QN_LOG_ERROR("storage not mounted, state=%d", static_cast<int>(enState));
        return QN_RET_STATE;
    }
    if (enVolume < QN_VOLUME_ID_E_0 || enVolume > QN_VOLUME_ID_E_2 || pHandle->astVolume[enVolume].bEnable == 0)
    {
        QN_LOG_ERROR("volume %d not enabled", static_cast<int>(enVolume));
        return QN_RET_STATE;
    }
    if (pszFileName == nullptr)
    {
        return QN_RET_NULL_PARAM;
    }
    const std::string strName = pszFileName;
    const std::string strBase = strName.substr(0, strName.find('.'));
    const std::string strFolder = pHandle->pszMountPoint + "/" + pHandle->astVolume[enVolume].pszFolder + "/";
    const std::string strTarget = strFolder + strBase + ".To.temp.ts";
    std::string strCommand =
        "mv \"" + strFolder + Quoted(strName) + "\" \"" + strFolder + Quoted(strBase) + ".To.temp.ts\"";
    if (strCommand.size() > COMMAND_BYTES)
    {
        strCommand.resize(COMMAND_BYTES);
    }
    QN_CARD_CommandBegin(pHandle);
    const uint32_t u32Result = Move(pHandle, enVolume, strCommand, strTarget);
    QN_CARD_CommandEnd(pHandle);
    return u32Result;
}
catch (const std::exception &)
{
    return QN_RET_NO_MEMORY;
}

} // namespace libquarrin
