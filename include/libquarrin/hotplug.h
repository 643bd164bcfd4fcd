// Hotplug monitor: kernel uevents of the handle's own device become events of its queue.
#ifndef LIBQUARRIN_HOTPLUG_H
#define LIBQUARRIN_HOTPLUG_H

#include "libquarrin/handle.h"

namespace libquarrin
{

/// Opens a bound, non-blocking, close-on-exec uevent socket (NETLINK_KOBJECT_UEVENT, multicast group 1).
///
/// \return the descriptor; -1 after a logged error.
///
/// Threads: any.
QN_API int32_t QN_STORAGE_HotplugNetlinkOpen();

/// Closes a socket and sets it to -1; a negative one is left as it is. Returns 0.
QN_API int32_t QN_STORAGE_HotplugNetlinkClose(int32_t &s32Fd);

/// Starts the monitor thread of a handle; QN_STORAGE_Init calls it. Returns 0.
QN_API int32_t QN_STORAGE_HotplugInit(tagQN_HANDLER_S *pHandle);

/// Joins the monitor thread and closes its socket. Returns 0.
///
/// Blocks: for one pass, about 200 ms, or what is left of an event's second and its wait for room in the queue.
QN_API int32_t QN_STORAGE_HotplugDestroy(tagQN_HANDLER_S *pHandle);

/// One pass of the monitor: waits at most 200 ms for a uevent; one that names the device exactly is posted a second
/// later, when the kernel has made or removed the nodes.
///
/// \param pHandle  the tagQN_HANDLER_S.
///
/// Threads: the monitor thread.
QN_API void QN_STORAGE_HotplugThread(void *pHandle);

} // namespace libquarrin

#endif
