// A loop device of the test's own: adding and removing it makes the kernel send real uevents that end in its name.
#ifndef QUARRIN_TESTS_LOOP_DEVICE_H
#define QUARRIN_TESTS_LOOP_DEVICE_H

#include <cstdint>
#include <string>

/// One loop device under a number that nobody uses. It does not exist before Add, and goes with the object.
class LOOP_DEVICE
{
public:
    LOOP_DEVICE();
    ~LOOP_DEVICE();
    LOOP_DEVICE(const LOOP_DEVICE &) = delete;
    LOOP_DEVICE &operator=(const LOOP_DEVICE &) = delete;

    /// This user may add and remove loop devices on this machine.
    static bool IsAvailable();

    /// Creates the node, still empty: the kernel sends add@.
    bool Add();

    /// Puts a file behind the device: change@. Without bPartScan the kernel refuses to read a partition table.
    bool Attach(const std::string &strImage, bool bPartScan);

    /// Makes the node of the first partition of a DOS table, as a kernel that parses such tables has done already.
    bool AddFirstPartition();

    /// Takes the file away again; whatever is mounted from the device is detached first.
    void Detach();

    /// Removes the node: remove@. False when somebody kept it busy.
    bool Remove();

    std::string strDevice; ///< "/dev/loopN"

private:
    int32_t Control(unsigned long u32Request);

    int32_t m_s32Number;
    bool m_bAdded = false;
    bool m_bAttached = false;
};

/// Makes an image of 64 MiB, which takes no room on the disk yet, with a DOS table of one partition; its path.
std::string TEST_CardImage(const std::string &strPath);

#endif
