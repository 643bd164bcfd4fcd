#include "photo_support.h"

#include <climits>
#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "support/card.h"

using namespace libquarrin;

static std::string s_strWatched;               // a path
static std::vector<DESCRIPTOR_S> s_vecWatched; // what was open on it when a file was closed

// Stands before the C library's: looks at the file that is being saved before it is closed.
extern "C" int fclose(FILE *pFile)
{
    static const auto s_pfnReal = reinterpret_cast<int (*)(FILE *)>(dlsym(RTLD_NEXT, "fclose"));
    if (!s_strWatched.empty())
    {
        s_vecWatched = DescriptorsOf(s_strWatched);
    }
    return s_pfnReal(pFile);
}

namespace
{

constexpr COLOUR_S RED = {220, 30, 40};
constexpr COLOUR_S GREEN = {40, 200, 60};
constexpr COLOUR_S BLUE = {30, 50, 210};
constexpr COLOUR_S GREY = {150, 150, 150};

tagQN_PHOTO_PARAM_S Param(uint32_t u32Width, uint32_t u32Height, uint32_t u32Pitch)
{
    return {u32Width, u32Height, 24, u32Pitch, 0, 95};
}

// Four quarters, red and green above blue and grey; rows are filled up to the pitch with 255.
std::vector<uint8_t> Quarters(int32_t s32Width, int32_t s32Height, int32_t s32Pitch)
{
    std::vector<uint8_t> vec(static_cast<size_t>(s32Pitch * s32Height), 255);
    for (int32_t y = 0; y < s32Height; ++y)
    {
        for (int32_t x = 0; x < s32Width; ++x)
        {
            const bool bLeft = x < s32Width / 2;
            const COLOUR_S st = y < s32Height / 2 ? (bLeft ? RED : GREEN) : (bLeft ? BLUE : GREY);
            uint8_t *pu8Pixel = vec.data() + y * s32Pitch + x * 3;
            pu8Pixel[0] = static_cast<uint8_t>(st.s32Red);
            pu8Pixel[1] = static_cast<uint8_t>(st.s32Green);
            pu8Pixel[2] = static_cast<uint8_t>(st.s32Blue);
        }
    }
    return vec;
}

uint32_t Length(const std::vector<uint8_t> &vec)
{
    return static_cast<uint32_t>(vec.size());
}

class JpegWrite : public ::testing::Test
{
protected:
    void SetUp() override
    {
        FAKE_PLATFORM_Reset();
    }

    // Writes silently; what was printed.
    std::string Write(const char *pszPath, const uint8_t *pu8Pixels, uint32_t u32Len, tagQN_PHOTO_PARAM_S stParam)
    {
        uint32_t u32Ret = UINT_MAX;
        std::string strPrinted;
        {
            STDOUT_CAPTURE capture;
            u32Ret = JPEG_Write(pszPath, pu8Pixels, u32Len, stParam);
            strPrinted = capture.Text();
        }
        EXPECT_EQ(0u, u32Ret);
        return strPrinted;
    }

    void ExpectQuarters(const PICTURE_S &stPicture, int32_t s32Width, int32_t s32Height)
    {
        ASSERT_TRUE(stPicture.bDecoded);
        ASSERT_EQ(s32Width, stPicture.stY.s32Width);
        ASSERT_EQ(s32Height, stPicture.stY.s32Height);
        EXPECT_TRUE(IsNear(ColourAt(stPicture, s32Width / 4, s32Height / 4), RED, 8));
        EXPECT_TRUE(IsNear(ColourAt(stPicture, s32Width * 3 / 4, s32Height / 4), GREEN, 8));
        EXPECT_TRUE(IsNear(ColourAt(stPicture, s32Width / 4, s32Height * 3 / 4), BLUE, 8));
        EXPECT_TRUE(IsNear(ColourAt(stPicture, s32Width * 3 / 4, s32Height * 3 / 4), GREY, 8));
    }

    TEMP_DIR m_dir;
    const std::string m_strPath = m_dir.strPath + "/picture.jpg";
};

} // namespace

TEST_F(JpegWrite, SavesThePixelsAsTheyAre)
{
    const std::vector<uint8_t> vec = Quarters(64, 48, 64 * 3);
    Write(m_strPath.c_str(), vec.data(), Length(vec), Param(64, 48, 64 * 3));
    ExpectQuarters(DecodeJpeg(m_strPath), 64, 48);
}

TEST_F(JpegWrite, LeavesOutTheBytesBetweenWidthAndPitch)
{
    const std::vector<uint8_t> vec = Quarters(64, 48, 64 * 3 + 50);
    Write(m_strPath.c_str(), vec.data(), Length(vec), Param(64, 48, 64 * 3 + 50));
    ExpectQuarters(DecodeJpeg(m_strPath), 64, 48);
}

TEST_F(JpegWrite, ReadsRedGreenBlueBytesWhateverThePixelFormatSays)
{
    const std::vector<uint8_t> vec = Quarters(64, 48, 64 * 3);
    for (const uint32_t u32Format : {0u, 1u, 24u, 0x17401803u, 0x16362004u, 0xffffffffu})
    {
        tagQN_PHOTO_PARAM_S stParam = Param(64, 48, 64 * 3);
        stParam.u32PixelFormat = u32Format;
        Write(m_strPath.c_str(), vec.data(), Length(vec), stParam);
        ExpectQuarters(DecodeJpeg(m_strPath), 64, 48);
        EXPECT_EQ(0, remove(m_strPath.c_str()));
    }
}

TEST_F(JpegWrite, DoesNotLookAtTheLength)
{
    const std::vector<uint8_t> vec = Quarters(64, 48, 64 * 3);
    Write(m_strPath.c_str(), vec.data(), Length(vec), Param(64, 48, 64 * 3));
    const std::string strBytes = TEST_ReadFile(m_strPath);
    for (const uint32_t u32Len : {0u, 1u, UINT_MAX})
    {
        Write(m_strPath.c_str(), vec.data(), u32Len, Param(64, 48, 64 * 3));
        EXPECT_EQ(strBytes, TEST_ReadFile(m_strPath));
    }
}

TEST_F(JpegWrite, HandsTheQualityOn)
{
    const std::vector<uint8_t> vec = Quarters(64, 48, 64 * 3);
    tagQN_PHOTO_PARAM_S stParam = Param(64, 48, 64 * 3);
    size_t u32Last = 0;
    for (const uint32_t u32Quality : {5u, 50u, 100u})
    {
        stParam.u32Quality = u32Quality;
        Write(m_strPath.c_str(), vec.data(), Length(vec), stParam);
        EXPECT_GT(TEST_ReadFile(m_strPath).size(), u32Last);
        u32Last = TEST_ReadFile(m_strPath).size();
    }
}

TEST_F(JpegWrite, PrintsTheParametersAndTheResultAndLogsNothing)
{
    const std::vector<uint8_t> vec = Quarters(64, 48, 200);
    tagQN_PHOTO_PARAM_S stParam = Param(64, 48, 200);
    stParam.u32PixelFormat = 7;
    EXPECT_EQ("u32Width=64,u32Height=48,u32Depth=24,u32Pitch=200,u32PixelFormat=7\nret =0\n",
              Write(m_strPath.c_str(), vec.data(), Length(vec), stParam));
    EXPECT_TRUE(FAKE_PLATFORM_Logs().empty());
}

TEST_F(JpegWrite, PrintsLargeParametersAsSignedNumbers)
{
    const tagQN_PHOTO_PARAM_S stParam = {UINT_MAX, 0x80000000u, UINT_MAX - 1, UINT_MAX - 2, UINT_MAX - 3, 90};
    EXPECT_EQ("u32Width=-1,u32Height=-2147483648,u32Depth=-2,u32Pitch=-3,u32PixelFormat=-4\nret =-1\n",
              Write(m_strPath.c_str(), nullptr, 0, stParam));
}

TEST_F(JpegWrite, WritesNothingForAPictureThatIsNone)
{
    const std::vector<uint8_t> vec = Quarters(64, 48, 64 * 3);
    const struct
    {
        const char *pszWhat;
        const uint8_t *pu8Pixels;
        uint32_t u32Width;
        uint32_t u32Height;
        uint32_t u32Pitch;
    } astCases[] = {
        {"no pixels", nullptr, 64, 48, 192},
        {"no width", vec.data(), 0, 48, 192},
        {"no height", vec.data(), 64, 0, 192},
        {"nothing at all", nullptr, 0, 0, 0},
        {"a pitch one byte too small", vec.data(), 64, 48, 191},
        {"no pitch", vec.data(), 64, 48, 0},
        {"a width whose bytes wrap around 32 bits", vec.data(), 0x55555556u, 48, 192},
        {"the largest width", vec.data(), UINT_MAX, 48, UINT_MAX},
        {"a height beyond int", vec.data(), 64, 0x80000000u, 192},
        {"a pitch beyond int", vec.data(), 64, 48, 0x80000000u},
    };
    for (const auto &st : astCases)
    {
        const std::string strPrinted =
            Write(m_strPath.c_str(), st.pu8Pixels, Length(vec), Param(st.u32Width, st.u32Height, st.u32Pitch));
        EXPECT_EQ(0u, strPrinted.find("u32Width=")) << st.pszWhat;
        EXPECT_NE(std::string::npos, strPrinted.find("\nret =-1\n")) << st.pszWhat;
        EXPECT_FALSE(TEST_Exists(m_strPath)) << st.pszWhat;
    }
}

TEST_F(JpegWrite, KeepsAnOlderPictureWhenTheNewOneIsNone)
{
    TEST_Touch(m_strPath, "older");
    Write(m_strPath.c_str(), nullptr, 0, Param(64, 48, 192));
    EXPECT_EQ("older", TEST_ReadFile(m_strPath));
}

TEST_F(JpegWrite, ReturnsZeroWhereNoFileCanBeWritten)
{
    const std::vector<uint8_t> vec = Quarters(64, 48, 64 * 3);
    const std::string strMissing = m_dir.strPath + "/missing/picture.jpg";
    const char *apszPaths[] = {nullptr, "", strMissing.c_str(), m_dir.strPath.c_str()};
    for (const char *pszPath : apszPaths)
    {
        EXPECT_EQ("u32Width=64,u32Height=48,u32Depth=24,u32Pitch=192,u32PixelFormat=0\nret =-1\n",
                  Write(pszPath, vec.data(), Length(vec), Param(64, 48, 192)));
    }
    EXPECT_TRUE(TEST_List(m_dir.strPath).empty());
}

TEST_F(JpegWrite, SavesTheLongestSideOfAJpegFileAndNoLongerOne)
{
    const std::vector<uint8_t> vec(65501 * 3, 60);
    Write(m_strPath.c_str(), vec.data(), Length(vec), Param(1, 65500, 3));
    EXPECT_EQ(65500, DecodeJpeg(m_strPath).stY.s32Height);
    Write(m_strPath.c_str(), vec.data(), Length(vec), Param(65500, 1, 65500 * 3));
    EXPECT_EQ(65500, DecodeJpeg(m_strPath).stY.s32Width);
    EXPECT_EQ(0, remove(m_strPath.c_str()));

    EXPECT_EQ("u32Width=1,u32Height=65501,u32Depth=24,u32Pitch=3,u32PixelFormat=0\nret =-1\n",
              Write(m_strPath.c_str(), vec.data(), Length(vec), Param(1, 65501, 3)));
    EXPECT_EQ("u32Width=65501,u32Height=1,u32Depth=24,u32Pitch=196503,u32PixelFormat=0\nret =-1\n",
              Write(m_strPath.c_str(), vec.data(), Length(vec), Param(65501, 1, 65501 * 3)));
    EXPECT_FALSE(TEST_Exists(m_strPath));
}

TEST_F(JpegWrite, ReturnsZeroWhenTheDiskIsFull)
{
    const std::vector<uint8_t> vec = Quarters(640, 480, 640 * 3);
    const std::string strPrinted = Write("/dev/full", vec.data(), Length(vec), Param(640, 480, 640 * 3));
    EXPECT_EQ(0u, strPrinted.find("u32Width=640,u32Height=480,u32Depth=24,u32Pitch=1920,u32PixelFormat=0\nret ="));
}

TEST_F(JpegWrite, SavesTinyAndOddPictures)
{
    for (const int32_t s32Width : {1, 2, 3, 17})
    {
        for (const int32_t s32Height : {1, 2, 5, 33})
        {
            // Exactly the bytes of the picture, so that a read behind it is seen.
            const std::vector<uint8_t> vec(static_cast<size_t>(s32Width * s32Height * 3), 90);
            Write(m_strPath.c_str(), vec.data(), Length(vec),
                  Param(static_cast<uint32_t>(s32Width), static_cast<uint32_t>(s32Height),
                        static_cast<uint32_t>(s32Width * 3)));
            const PICTURE_S stPicture = DecodeJpeg(m_strPath);
            ASSERT_TRUE(stPicture.bDecoded);
            EXPECT_EQ(s32Width, stPicture.stY.s32Width);
            EXPECT_EQ(s32Height, stPicture.stY.s32Height);
            EXPECT_LE(stPicture.stY.FarthestFrom(90), 3);
        }
    }
}

TEST_F(JpegWrite, ReplacesALongerFile)
{
    const std::vector<uint8_t> vec = Quarters(64, 48, 64 * 3);
    Write(m_strPath.c_str(), vec.data(), Length(vec), Param(64, 48, 192));
    const std::string strBytes = TEST_ReadFile(m_strPath);
    TEST_Touch(m_strPath, std::string(100000, 'x'));
    Write(m_strPath.c_str(), vec.data(), Length(vec), Param(64, 48, 192));
    EXPECT_EQ(strBytes, TEST_ReadFile(m_strPath));
}

TEST_F(JpegWrite, DoesNotChangeThePixels)
{
    const std::vector<uint8_t> vecBefore = Quarters(64, 48, 200);
    const std::vector<uint8_t> vec = vecBefore;
    Write(m_strPath.c_str(), vec.data(), Length(vec), Param(64, 48, 200));
    EXPECT_EQ(vecBefore, vec);
}

TEST_F(JpegWrite, LeavesNoDescriptorOpen)
{
    const std::vector<uint8_t> vec = Quarters(64, 48, 64 * 3);
    Write(m_strPath.c_str(), vec.data(), Length(vec), Param(64, 48, 192));
    const std::vector<int32_t> vecBefore = OpenDescriptors();
    Write(m_strPath.c_str(), vec.data(), Length(vec), Param(64, 48, 192));
    Write(m_strPath.c_str(), nullptr, 0, Param(64, 48, 192));
    Write("", vec.data(), Length(vec), Param(64, 48, 192));
    EXPECT_EQ(vecBefore, OpenDescriptors());
}

TEST_F(JpegWrite, OpensTheFileCloseOnExec)
{
    const std::vector<uint8_t> vec = Quarters(64, 48, 64 * 3);
    s_strWatched = m_strPath;
    s_vecWatched.clear();
    Write(m_strPath.c_str(), vec.data(), Length(vec), Param(64, 48, 192));
    s_strWatched.clear();
    ASSERT_EQ(1u, s_vecWatched.size());
    EXPECT_TRUE(s_vecWatched[0].bCloseOnExec);
}

TEST_F(JpegWrite, WorksOnSeveralThreadsAtOnce)
{
    const std::vector<uint8_t> vec = Quarters(64, 48, 64 * 3);
    auto capture = std::make_unique<STDOUT_CAPTURE>();
    std::vector<std::thread> vecThreads;
    for (int32_t i = 0; i < 4; ++i)
    {
        vecThreads.emplace_back(
            [&, i]
            {
                const std::string strPath = m_strPath + std::to_string(i);
                for (int32_t s32Times = 0; s32Times < 10; ++s32Times)
                {
                    JPEG_Write(strPath.c_str(), vec.data(), Length(vec), Param(64, 48, 192));
                }
            });
    }
    for (std::thread &thread : vecThreads)
    {
        thread.join();
    }
    const int32_t s32Good = capture->Count("ret =0\n");
    capture.reset(); // a failure is seen
    EXPECT_EQ(40, s32Good);
    for (int32_t i = 0; i < 4; ++i)
    {
        ExpectQuarters(DecodeJpeg(m_strPath + std::to_string(i)), 64, 48);
    }
}

TEST_F(JpegWrite, IsTheOnlySlotOfTheTable)
{
    EXPECT_EQ(&JPEG_Write, qn_photo_api_jpeg.pfnWrite);
    EXPECT_EQ(sizeof(void *), sizeof(qn_photo_api_jpeg));
}

TEST_F(JpegWrite, TakesAParameterRecordOfSixWords)
{
    EXPECT_EQ(24u, sizeof(tagQN_PHOTO_PARAM_S));
    const tagQN_PHOTO_PARAM_S st = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(1u, st.u32Width);
    EXPECT_EQ(2u, st.u32Height);
    EXPECT_EQ(3u, st.u32Depth);
    EXPECT_EQ(4u, st.u32Pitch);
    EXPECT_EQ(5u, st.u32PixelFormat);
    EXPECT_EQ(6u, st.u32Quality);
}
