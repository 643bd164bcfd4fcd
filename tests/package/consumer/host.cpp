// The smallest host: opens a handle on a device that is not there, and closes it again.

#include <libquarrin.h>

#include <cstdio>
#include <cstring>

static_assert(sizeof(off_t) == 8 && sizeof(time_t) == 8, "the package gives its 64-bit definitions to hosts");

int main()
{
    libquarrin::tagQN_STORAGE_PARAM_S stParam = {};
    stParam.strDevice = "/dev/quarrin-none";
    stParam.s32PartitionNo = 1;
    stParam.pszMountPoint = "/nonexistent/quarrin";
    libquarrin::tagQN_HANDLER_S *pHandle = nullptr;
    if (libquarrin::QN_Init(&stParam, pHandle) != 0 || pHandle == nullptr)
    {
        return 1;
    }
    libquarrin::QN_Destroy(pHandle);
    fprintf(stderr, "status %d\n", BU_RunCmd("exit 3"));
    return 0;
}
