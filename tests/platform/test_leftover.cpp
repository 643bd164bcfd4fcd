// A mount directory that was left behind: it goes, unless there is something in it or on it.

#include <sys/mount.h>

#include "helpers.h"
#include "quarrin_platform.h"

namespace
{

class Leftover : public DIR_TEST
{
protected:
    static int32_t Remove(const std::string &strPath, const char *pszDevice = "/dev/quarrin-none")
    {
        return QN_PLATFORM_RemoveLeftover(pszDevice, strPath.c_str());
    }
};

} // namespace

TEST_F(Leftover, GoesWithItsEmptyFolders)
{
    const std::string strMount = MakeFolder("card");
    MakeFolder("card/rec");
    MakeFolder("card/photo");
    MakeFolder("card/photo/front");
    EXPECT_EQ(0, Remove(strMount));
    EXPECT_FALSE(IsThere(strMount));
    EXPECT_EQ(0, Remove(strMount)); // there is nothing in the way
}

TEST_F(Leftover, StaysWithEverythingInItWhenThereIsOneFile)
{
    const std::string strMount = MakeFolder("card");
    MakeFolder("card/event");
    MakeFolder("card/rec");
    const std::string strFile = MakeFile("card/rec/file", "");
    EXPECT_EQ(1, Remove(strMount));
    EXPECT_TRUE(IsThere(strFile));
    EXPECT_TRUE(IsThere(strMount + "/event"));
}

TEST_F(Leftover, StaysWhenALinkLiesInIt)
{
    const std::string strMount = MakeFolder("card");
    const std::string strElsewhere = MakeFolder("elsewhere");
    MakeFolder("elsewhere/empty");
    std::filesystem::create_symlink(strElsewhere, strMount + "/rec");
    EXPECT_EQ(1, Remove(strMount));
    EXPECT_TRUE(IsThere(strMount + "/rec"));
    EXPECT_TRUE(IsThere(strElsewhere + "/empty"));
}

TEST_F(Leftover, StaysWhenTheDeviceIsNone)
{
    const std::string strMount = MakeFolder("card");
    EXPECT_EQ(0, Remove(strMount, "/dev/null"));
    EXPECT_EQ(0, Remove(strMount, MakeFile("device").c_str()));
    EXPECT_TRUE(IsThere(strMount));
}

TEST_F(Leftover, GoesWithTheLinkToIt)
{
    const std::string strLink = m_strDir + "/link";
    std::filesystem::create_symlink(MakeFolder("card"), strLink);
    EXPECT_EQ(0, Remove(strLink));
    EXPECT_FALSE(IsThere(strLink));
    EXPECT_FALSE(IsThere(m_strDir + "/card"));
    std::filesystem::create_symlink(m_strDir + "/card", strLink);
    EXPECT_EQ(0, Remove(strLink)); // leads nowhere, and no directory could be made there
    EXPECT_FALSE(IsThere(strLink));
}

TEST_F(Leftover, IsNoFileAndNoNullPointer)
{
    EXPECT_EQ(1, Remove(MakeFile("file")));
    EXPECT_TRUE(IsThere(m_strDir + "/file"));
    EXPECT_EQ(1, QN_PLATFORM_RemoveLeftover(nullptr, m_strDir.c_str()));
    EXPECT_EQ(1, QN_PLATFORM_RemoveLeftover("/dev/null", nullptr));
}

TEST_F(Leftover, IsNoMountedCard)
{
    const std::string strMount = MakeFolder("card");
    const std::string strLower = MakeFolder("lower");
    const std::string strInner = MakeFolder("lower/inner");
    if (geteuid() != 0 || mount("none", strMount.c_str(), "tmpfs", 0, "size=64k") != 0)
    {
        GTEST_SKIP() << "needs root and the right to mount";
    }
    EXPECT_EQ(0, Remove(strMount));
    EXPECT_EQ(0, umount2(strMount.c_str(), 0));
    EXPECT_TRUE(IsThere(strMount));
    ASSERT_EQ(0, mount("none", strInner.c_str(), "tmpfs", 0, "size=64k"));
    EXPECT_EQ(1, Remove(strLower)); // somebody's empty file system below it
    EXPECT_EQ(0, umount2(strInner.c_str(), 0));
    EXPECT_TRUE(IsThere(strInner));
}
