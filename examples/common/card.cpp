// The card of a host. See the header.

#include "card.h"

#include <sys/stat.h>

using namespace libquarrin;

tagQN_STORAGE_PARAM_S CardParam(const std::string &device, const std::string &mountPoint, bool autoDelete)
{
    tagQN_STORAGE_PARAM_S param;
    param.strDevice = device;
    param.s32PartitionNo = 1;
    param.pszMountPoint = mountPoint;
    tagQN_VOLUME_PARAM_S &volume = param.astVolume[QN_VOLUME_ID_E_0];
    volume.bEnable = 1;
    volume.pszFolder = RECORDINGS;
    volume.u32QuotaType = 1; // in per cent: a number of bytes would have to stay below 4 GiB
    volume.u32QuotaPercent = 90;
    volume.bAutoDelete = autoDelete;
    return param;
}

bool IsMountPoint(const std::string &path)
{
    struct stat inside = {};
    struct stat above = {};
    return stat(path.c_str(), &inside) == 0 && stat((path + "/..").c_str(), &above) == 0 &&
           inside.st_dev != above.st_dev;
}

// Device and mount point go into shell lines as they stand.
static bool IsPlainPath(const std::string &path)
{
    const char *plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+";
    return path.size() > 1 && path[0] == '/' && path.find_first_not_of(plain) == std::string::npos;
}

std::string WhyNotMountPoint(const tagQN_STORAGE_PARAM_S &param)
{
    const std::string &folder = param.pszMountPoint;
    if (!IsPlainPath(folder) || !IsPlainPath(param.strDevice))
    {
        return "device and mount point are absolute paths of letters, digits and / . _ - +";
    }
    struct stat info = {};
    const bool isThere = stat(folder.c_str(), &info) == 0;
    if (isThere && !S_ISDIR(info.st_mode))
    {
        return folder + " is no folder";
    }
    struct stat node = {};
    const bool isCard = stat(param.strDevice.c_str(), &node) != 0 || S_ISBLK(node.st_mode); // absent: not in yet
    if (!isCard)
    {
        // A plain folder on a PC, which stands for a mounted card. The end of QN_Destroy would unmount a real one.
        return !isThere               ? "there is no folder " + folder
               : IsMountPoint(folder) ? folder + " is a mount point: give its device, or a folder below it"
                                      : "";
    }
    if (isThere && !IsMountPoint(folder))
    {
        // QN_Init would take it for a mounted card and record onto the device's own flash. An empty one that a power
        // cut left behind has been removed by the utility layer.
        return folder + " is a folder with something in it: a card needs a mount point of its own";
    }
    return "";
}

const char *StateText(QN_STATE_E state)
{
    switch (state)
    {
    case QN_STATE_E_UNPLUGIN:
        return "not there";
    case QN_STATE_E_PLUGIN:
        return "there, but cannot be mounted (a format would help)";
    case QN_STATE_E_FORMATING:
        return "being formatted";
    case QN_STATE_E_UNMOUNTED:
        return "unmounted";
    case QN_STATE_E_MOUNTED:
        return "mounted";
    }
    return "in an unknown state";
}
