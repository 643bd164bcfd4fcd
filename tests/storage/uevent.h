// Sends uevents as the kernel would. They reach every listener of the machine: their device names must be the test's
// own.
#ifndef QUARRIN_TESTS_UEVENT_H
#define QUARRIN_TESTS_UEVENT_H

#include <string>

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

/// Sends one message to the kernel's multicast group. False when this user may not.
inline bool TEST_SendUevent(const std::string &strMessage)
{
    const int s32Fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    struct sockaddr_nl stTo = {};
    stTo.nl_family = AF_NETLINK;
    stTo.nl_groups = 1;
    const ssize_t s64Sent = sendto(s32Fd, strMessage.data(), strMessage.size(), 0,
                                   reinterpret_cast<struct sockaddr *>(&stTo), sizeof(stTo));
    close(s32Fd);
    return s64Sent == static_cast<ssize_t>(strMessage.size());
}

/// This user may send uevents.
inline bool TEST_MaySendUevents()
{
    return TEST_SendUevent("change@/devices/virtual/quarrin/probe");
}

#endif
