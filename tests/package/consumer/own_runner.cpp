// A command runner of the host's own that uses the package's.

#include <libquarrin.h>
#include <quarrin_platform.h>

extern "C" int BU_RunCmd(const char *cmd)
{
    return 100 + QN_PLATFORM_RunCommand(cmd);
}
