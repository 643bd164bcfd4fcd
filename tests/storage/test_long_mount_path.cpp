// A mount point whose path is about as long as a path may be: nothing of it is cut on the way.

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "storage/quota_test.h"

using namespace libquarrin;

namespace
{

class LongMountPath : public QUOTA_TEST
{
protected:
    void SetUp() override
    {
        CARD_TEST::SetUp();
        while (m_strMount.size() < 3500)
        {
            mkdir(m_strMount.c_str(), 0755);
            m_strMount += "/" + std::string(200, 'm');
        }
        m_stParam.pszMountPoint = m_strMount;
        InitMounted();
    }
};

} // namespace

TEST_F(LongMountPath, EveryCommandLineHoldsItWhole)
{
    const std::vector<std::string> vecMkdirs = {"mkdir -p " + Folder(0), "mkdir -p " + Folder(1),
                                                "mkdir -p " + Folder(2)};
    EXPECT_EQ(vecMkdirs, FAKE_PLATFORM_Commands());
    FAKE_PLATFORM_Reset();
    EXPECT_EQ(0u, QN_StorageUnMount(m_pHandle));
    EXPECT_EQ(std::vector<std::string>{"umount " + m_strMount + "; rm -rf " + m_strMount}, FAKE_PLATFORM_Commands());
    FAKE_PLATFORM_Reset();
    EXPECT_EQ(0u, QN_StorageMount(m_pHandle));
    ASSERT_TRUE(WaitForIdle());
    ASSERT_EQ(4u, FAKE_PLATFORM_Commands().size());
    EXPECT_EQ("mkdir -p " + m_strMount + "; mount " + m_strPartition + " " + m_strMount, FAKE_PLATFORM_Commands()[0]);
}

TEST_F(LongMountPath, QuotaListsAndDeletesThere)
{
    const std::string strOld = AddFile(1, 100);
    const std::string strNew = AddFile(2, 100);
    SetQuota(150, 0, true);
    FAKE_PLATFORM_Reset();
    EXPECT_EQ(0, Check());
    EXPECT_TRUE(LoggedInfo("Quota[0] remove " + strOld));
    EXPECT_TRUE(m_out.Has("] Quota[0] remove " + strOld + "\n"));
    EXPECT_FALSE(TEST_Exists(strOld));
    EXPECT_TRUE(TEST_Exists(strNew));
}
