// BU_RunCmd alone, so that a program's own definition takes its place and can still call the runner.

#include "bu_platform.h"
#include "quarrin_platform.h"

extern "C" int BU_RunCmd(const char *cmd)
{
    return QN_PLATFORM_RunCommand(cmd);
}
