// The name of a device without its folder.
#ifndef QUARRIN_STORAGE_DEVICE_NAME_H
#define QUARRIN_STORAGE_DEVICE_NAME_H

#include <string>

namespace libquarrin
{

/// The text behind the last "/" of a device path, or the whole of it; borrowed from it.
inline const char *QN_DeviceName(const std::string &strDevice)
{
    const size_t slash = strDevice.rfind('/');
    return strDevice.c_str() + (slash == std::string::npos ? 0 : slash + 1);
}

} // namespace libquarrin

#endif
