#include "photo_support.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

#include "support/card.h"

using namespace libquarrin;

namespace
{

constexpr char FOLDER[] = "/tmp/web_cache";

// The folder is there during the test; one that was there before stays.
class SaveRgb : public ::testing::Test
{
protected:
    void SetUp() override
    {
        FAKE_PLATFORM_Reset();
        m_bMade = mkdir(FOLDER, 0755) == 0;
        ASSERT_TRUE(m_bMade || errno == EEXIST);
        // A name that no other process uses.
        m_strComment = "test-" + std::to_string(getpid());
        memset(m_szPath, '#', sizeof(m_szPath));
    }

    void TearDown() override
    {
        for (const std::string &strName : TEST_List(FOLDER))
        {
            if (strName.find(m_strComment) != std::string::npos)
            {
                (void)remove((std::string(FOLDER) + "/" + strName).c_str());
            }
        }
        if (m_bMade)
        {
            (void)rmdir(FOLDER); // stays when somebody else uses it meanwhile
        }
    }

    std::string Save(tagQN_HANDLER_S *pHandle, const char *pszComment)
    {
        int32_t s32Ret = -1;
        std::string strPrinted;
        {
            STDOUT_CAPTURE capture;
            m_tBefore = time(nullptr);
            s32Ret = QN_RecordSaveRGBAsJpeg(pHandle, m_vecRgb.data(), static_cast<uint32_t>(m_vecRgb.size()), m_stParam,
                                            pszComment, m_szPath);
            m_tAfter = time(nullptr);
            strPrinted = capture.Text();
        }
        EXPECT_EQ(0, s32Ret);
        return strPrinted;
    }

    // The path is that of a second between begin and end of the call.
    bool IsPathOfNow(const char *pszComment)
    {
        for (time_t tTime = m_tBefore; tTime <= m_tAfter; ++tTime)
        {
            if (QN_STORAGE_GenerateImageFile("/tmp", "web_cache", tTime, pszComment, "jpg") == m_szPath)
            {
                return true;
            }
        }
        return false;
    }

    bool m_bMade = false;
    std::string m_strComment;
    char m_szPath[512];
    time_t m_tBefore = 0;
    time_t m_tAfter = 0;
    const std::vector<uint8_t> m_vecRgb = std::vector<uint8_t>(32 * 16 * 3, 70);
    tagQN_PHOTO_PARAM_S m_stParam = {32, 16, 24, 96, 0, 90};
};

} // namespace

TEST_F(SaveRgb, WritesBelowTheTemporaryDirectoryWithoutAHandle)
{
    const std::string strPrinted = Save(nullptr, m_strComment.c_str());
    EXPECT_TRUE(IsPathOfNow(m_strComment.c_str())) << m_szPath;
    EXPECT_EQ(0u, std::string(m_szPath).find("/tmp/web_cache/20"));
    EXPECT_NE(std::string::npos, std::string(m_szPath).find(".[" + m_strComment + "].jpg"));
    const PICTURE_S stPicture = DecodeJpeg(m_szPath);
    ASSERT_TRUE(stPicture.bDecoded);
    EXPECT_EQ(32, stPicture.stY.s32Width);
    EXPECT_EQ(16, stPicture.stY.s32Height);
    EXPECT_LE(stPicture.stY.FarthestFrom(70), 3);
    EXPECT_EQ("u32Width=32,u32Height=16,u32Depth=24,u32Pitch=96,u32PixelFormat=0\nret =0\n", strPrinted);
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(SaveRgb, DoesNotLookAtTheHandle)
{
    char acNoHandle[16] = {};
    Save(reinterpret_cast<tagQN_HANDLER_S *>(acNoHandle), m_strComment.c_str());
    EXPECT_TRUE(DecodeJpeg(m_szPath).bDecoded);
}

TEST_F(SaveRgb, EndsThePathWithItsZeroAndTouchesNothingBehindIt)
{
    Save(nullptr, m_strComment.c_str());
    const size_t u32Len = strlen(m_szPath);
    ASSERT_LT(u32Len + 1, sizeof(m_szPath));
    for (size_t i = u32Len + 1; i < sizeof(m_szPath); ++i)
    {
        ASSERT_EQ('#', m_szPath[i]);
    }
}

TEST_F(SaveRgb, FillsThePathWhenThePictureCannotBeWritten)
{
    const std::string strComment = m_strComment + "/no/such/folder";
    const std::string strPrinted = Save(nullptr, strComment.c_str());
    EXPECT_TRUE(IsPathOfNow(strComment.c_str())) << m_szPath;
    EXPECT_FALSE(TEST_Exists(m_szPath));
    EXPECT_NE(std::string::npos, strPrinted.find("\nret =-1\n"));
}

TEST_F(SaveRgb, FillsThePathWhenThereIsNoPicture)
{
    m_stParam.u32Width = 0;
    Save(nullptr, m_strComment.c_str());
    EXPECT_TRUE(IsPathOfNow(m_strComment.c_str())) << m_szPath;
    EXPECT_FALSE(TEST_Exists(m_szPath));
}

TEST_F(SaveRgb, NeedsNoComment)
{
    for (const char *pszComment : {static_cast<const char *>(nullptr), ""})
    {
        m_stParam.u32Width = 0; // the path alone: a picture of that name could be somebody else's
        Save(nullptr, pszComment);
        EXPECT_TRUE(IsPathOfNow(nullptr)) << m_szPath;
        EXPECT_EQ(std::string::npos, std::string(m_szPath).find('['));
    }
}

TEST_F(SaveRgb, KeepsALongComment)
{
    const std::string strComment = m_strComment + std::string(200, 'c');
    Save(nullptr, strComment.c_str());
    EXPECT_TRUE(IsPathOfNow(strComment.c_str()));
    EXPECT_TRUE(DecodeJpeg(m_szPath).bDecoded);
}

TEST_F(SaveRgb, WorksWithoutAnyPathToFill)
{
    EXPECT_EQ(0, QN_RecordSaveRGBAsJpeg(nullptr, m_vecRgb.data(), static_cast<uint32_t>(m_vecRgb.size()), m_stParam,
                                        m_strComment.c_str(), nullptr));
    bool bWritten = false;
    for (const std::string &strName : TEST_List(FOLDER))
    {
        bWritten = bWritten || strName.find(m_strComment) != std::string::npos;
    }
    EXPECT_TRUE(bWritten);
}

// A handle whose card is not even plugged in.
class SaveRgbUnmounted : public CARD_TEST
{
};

TEST_F(SaveRgbUnmounted, NeitherNeedsTheStorageNorTouchesIt)
{
    ASSERT_EQ(0, remove(m_strDevice.c_str()));
    Init();
    const size_t u32Commands = FAKE_PLATFORM_Commands().size();
    const std::vector<uint8_t> vecRgb(32 * 16 * 3, 70);
    char szPath[512] = "";
    EXPECT_EQ(0, QN_RecordSaveRGBAsJpeg(m_pHandle, vecRgb.data(), 0, {32, 16, 24, 96, 0, 90}, "a/b", szPath));
    EXPECT_EQ(0u, std::string(szPath).find("/tmp/web_cache/"));
    EXPECT_EQ(u32Commands, FAKE_PLATFORM_Commands().size());
    EXPECT_FALSE(TEST_Exists(m_strMount));
}
