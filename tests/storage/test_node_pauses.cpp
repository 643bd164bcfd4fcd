// The pauses between two looks at a partition's node: their number and length, and signals that cut them short.

#include <cerrno>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "storage/storage_support.h"
#include "support/capture.h"
#include "support/card.h"
#include "support/fake_platform.h"

using namespace libquarrin;

namespace
{

// Of the calling thread alone: other threads of the library sleep too.
thread_local std::vector<useconds_t> *g_pvecPauses = nullptr;
thread_local bool g_bInterrupt = false;

class NodePauses : public ::testing::Test
{
protected:
    NodePauses()
    {
        FAKE_PLATFORM_Reset();
        g_pvecPauses = &m_vecPauses;
    }

    ~NodePauses() override
    {
        g_pvecPauses = nullptr;
        g_bInterrupt = false;
    }

    TEMP_DIR m_dir;
    std::vector<useconds_t> m_vecPauses;
};

} // namespace

extern "C" int usleep(useconds_t u32Us)
{
    using USLEEP = int (*)(useconds_t);
    static const USLEEP pfnSleep = reinterpret_cast<USLEEP>(dlsym(RTLD_NEXT, "usleep"));
    if (g_pvecPauses == nullptr)
    {
        return pfnSleep(u32Us);
    }
    g_pvecPauses->push_back(u32Us);
    if (g_bInterrupt)
    {
        g_bInterrupt = false;
        errno = EINTR;
        return -1;
    }
    return 0; // no test waits for them
}

TEST_F(NodePauses, AreTenOfATenthOfASecond)
{
    STDOUT_CAPTURE out;
    EXPECT_EQ(1u, QN_STORAGE_DeviceIsAccessible(m_dir.strPath + "/none", m_dir.strPath + "/nonep1"));
    EXPECT_EQ(std::vector<useconds_t>(10, 100000), m_vecPauses);
}

TEST_F(NodePauses, AreNoneWhenTheNodeIsThere)
{
    STDOUT_CAPTURE out;
    const std::string strNode = TEST_Touch(m_dir.strPath + "/node");
    EXPECT_EQ(1u, QN_STORAGE_DeviceIsAccessible(strNode, strNode));
    EXPECT_TRUE(m_vecPauses.empty());
}

TEST_F(NodePauses, AreNoneAlsoForAHostThatHasClosedItsStandardInput)
{
    STDOUT_CAPTURE out;
    const std::string strNode = TEST_Touch(m_dir.strPath + "/node");
    const int s32Saved = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    const int32_t s32Before = TEST_OpenDescriptors();
    close(STDIN_FILENO); // the next descriptor is 0
    EXPECT_EQ(1u, QN_STORAGE_DeviceIsAccessible(strNode, strNode));
    EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD)); // and is free again
    EXPECT_EQ(s32Before - (s32Saved >= 0 ? 1 : 0), TEST_OpenDescriptors());
    if (s32Saved >= 0)
    {
        dup2(s32Saved, STDIN_FILENO);
        close(s32Saved);
    }
    EXPECT_TRUE(m_vecPauses.empty());
    EXPECT_FALSE(out.Has("not found after creation"));
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(4, "QN_STORAGE_DeviceIsAccessible", "open failed"));
}

TEST_F(NodePauses, AreMadeUpForAfterASignal)
{
    STDOUT_CAPTURE out;
    for (int32_t i = 0; i < 20 && m_vecPauses.size() != 11; ++i) // nothing is left on a machine that stalls that long
    {
        m_vecPauses.clear();
        g_bInterrupt = true;
        EXPECT_EQ(1u, QN_STORAGE_DeviceIsAccessible(m_dir.strPath + "/none", m_dir.strPath + "/nonep1"));
    }
    ASSERT_EQ(11u, m_vecPauses.size());
    EXPECT_EQ(100000u, m_vecPauses[0]);
    EXPECT_LE(m_vecPauses[1], 100000u); // what was left of the first
    EXPECT_GT(m_vecPauses[1], 0u);
}

TEST_F(NodePauses, BeforeASecondMkfsIsHalfASecond)
{
    STDOUT_CAPTURE out;
    const std::string strDevice = TEST_Touch(m_dir.strPath + "/card");
    TEST_Touch(strDevice + "p1");
    FAKE_PLATFORM_Answer("mkfs", 1);
    EXPECT_EQ(-4, QN_STORAGE_MakePartitionFs(strDevice.c_str(), 1, QN_FS_TYPE_E_EXT4));
    EXPECT_EQ(std::vector<useconds_t>{500000}, m_vecPauses);
}
