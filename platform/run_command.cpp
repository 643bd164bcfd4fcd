// The command runner: one shell command line in, its exit status out.
// Threads: any. Locks: none. Not here: starting the shell (process.cpp), the mount and unmount lines (mount.cpp,
// unmount.cpp).

#include "quarrin_platform.h"

#include <exception>
#include <string>
#include <vector>

#include "log.h"
#include "mount.h"
#include "process.h"
#include "unmount.h"

static int32_t RunInShell(const char *pszLine)
{
    const std::vector<std::string> vecShell = PLATFORM_FindShell(PLATFORM_ShellFolders());
    if (vecShell.empty())
    {
        PLATFORM_LogError("neither bash nor busybox is there to run \"%s\"", pszLine);
        return PLATFORM_NOT_STARTED;
    }
    std::vector<std::string> vecArgs = vecShell;
    vecArgs.insert(vecArgs.end(), {"-c", pszLine});
    return PLATFORM_RunArgs(vecShell, vecArgs);
}

extern "C" int QN_PLATFORM_RunCommand(const char *cmd)
try
{
    if (cmd == nullptr)
    {
        PLATFORM_LogError("no command line to run");
        return PLATFORM_NOT_STARTED;
    }
    std::string strDevice;
    std::string strPath;
    if (PLATFORM_IsMountLine(cmd, strDevice, strPath))
    {
        return PLATFORM_IsMountedOn(strDevice, strPath) ? 0 : PLATFORM_Mount(strDevice, strPath);
    }
    switch (PLATFORM_ClassifyLine(cmd, strPath))
    {
    case PLATFORM_LINE_UNMOUNT:
        return PLATFORM_Unmount(strPath);
    case PLATFORM_LINE_DANGEROUS:
        PLATFORM_LogError("refused, since it removes something else than what it unmounts: \"%s\"", cmd);
        return 1;
    case PLATFORM_LINE_ORDINARY:
        break;
    }
    return RunInShell(cmd);
}
catch (const std::exception &) // no memory; nothing leaves to callers that may be built without exceptions
{
    return PLATFORM_NOT_STARTED;
}
