// Loop devices by number, with what the kernel's interface has for them. Numbers below 40 are refused everywhere.
// Threads: any. Locks: none.
#ifndef QUARRIN_TESTS_CARD_SIM_LOOP_H
#define QUARRIN_TESTS_CARD_SIM_LOOP_H

#include <cstdint>
#include <string>

/// The first number that may be ours.
constexpr int32_t LOOP_FIRST = 40;

/// "/dev/loopN"
std::string LOOP_Device(int32_t s32Number);

/// Makes a device; false with errno EEXIST when there is one already.
bool LOOP_Add(int32_t s32Number);

/// Removes a device without users; false with errno EBUSY while it has some. One that is not there counts as removed.
bool LOOP_Remove(int32_t s32Number);

/// Attaches an image, with partition scan.
bool LOOP_Attach(int32_t s32Number, const std::string &strImage, bool bReadOnly);

/// Takes the image away, or lets the last user do it.
void LOOP_Detach(int32_t s32Number);

/// The attached image; empty when there is none.
std::string LOOP_Image(int32_t s32Number);

/// Writes an action into the device's uevent file: the kernel announces it.
bool LOOP_Announce(int32_t s32Number, const char *pszAction);

/// Makes the node of partition 1 of a DOS table when it is missing.
void LOOP_AddPartition(int32_t s32Number);

/// Detaches all mounts of the device and of its first partition, and all mounts below a directory. Open files live on.
void LOOP_Unmount(int32_t s32Number, const std::string &strBelow);

/// Detaches all mounts whose paths begin so.
void LOOP_UnmountAll(const char *pszBegin);

/// The device or its first partition is mounted; strWhere is the first place then.
bool LOOP_IsMounted(int32_t s32Number, std::string &strWhere);

/// Something is mounted at or below a directory.
bool LOOP_HasMountBelow(const std::string &strDir);

#endif
