// The library's handle on a plain folder: nothing is mounted, unmounted or run.
#ifndef QUARRIN_TOOLS_STORAGE_HANDLE_H
#define QUARRIN_TOOLS_STORAGE_HANDLE_H

#include <memory>
#include <string>

#include "libquarrin.h"

/// Folder of the recordings below the storage folder.
constexpr const char *TOOL_STORAGE_FOLDER = "rec";

/// How much the recordings may take.
struct tagTOOL_QUOTA_S
{
    uint32_t u32Bytes = 0;   ///< 0: not given in bytes
    uint32_t u32Percent = 0; ///< per cent of the file system; 0: not given
    bool bNoAutoDelete = false;
};

struct tagTOOL_HANDLE_CLOSE_S
{
    void operator()(libquarrin::tagQN_HANDLER_S *pHandle) const
    {
        (void)libquarrin::QN_Destroy(pHandle); // refuses a null handle only
    }
};

/// Owns the library's handle; its sessions are destroyed before it.
using TOOL_STORAGE = std::unique_ptr<libquarrin::tagQN_HANDLER_S, tagTOOL_HANDLE_CLOSE_S>;

/// Reads "500M", "80%" or a number of bytes. False with strError set when it is no quota that the library can keep.
bool TOOL_STORAGE_ParseQuota(const std::string &strText, tagTOOL_QUOTA_S &stQuota, std::string &strError);

/// Makes the folder for recordings where it is missing; the folder above DIR must exist. False with strError set when
/// nothing can be written there.
bool TOOL_STORAGE_Prepare(const std::string &strDir, std::string &strError);

/// Opens the handle on an existing folder. Null with strError set on failure, also when its folder of recordings
/// is a link.
TOOL_STORAGE TOOL_STORAGE_Open(const std::string &strDir, const tagTOOL_QUOTA_S &stQuota, std::string &strError);

/// Path of the folder that holds the recordings.
std::string TOOL_STORAGE_Folder(const libquarrin::tagQN_HANDLER_S *pHandle);

#endif
