// Names that somebody has planted on the card for the seconds to come: a recording neither follows nor opens them.

#include "session_fixture.h"

#include <functional>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "reliability/virtual_clock.h"
#include "support/process.h"
#include "support/streams.h"

using namespace libquarrin;

constexpr int64_t NOON_MS = 1700049600000;

class TrapsPlanted : public SESSION_TEST
{
protected:
    void SetUp() override
    {
        SESSION_TEST::SetUp();
        CLOCK_Set(NOON_MS);
        m_strVictim = TEST_Touch(m_dir.strPath + "/victim", "the host's");
    }

    void TearDown() override
    {
        CLOCK_Release();
        SESSION_TEST::TearDown();
        EXPECT_EQ("the host's", TEST_ReadFile(m_strVictim));
    }

    std::string PathAt(int64_t s64Seconds)
    {
        return QN_STORAGE_GenerateRecordingFile(m_strMount.c_str(), "rec", NOON_MS / 1000 + s64Seconds, "t", "mkv");
    }

    struct PLANT_S
    {
        const char *pszName;
        std::function<int(const char *)> fnPlant;
    };

    // Everything but a file and a folder. Nodes need rights; without them the others are tried alone.
    std::vector<PLANT_S> Plants()
    {
        std::vector<PLANT_S> vecPlants = {
            {"a link",
             [this](const char *pszPath)
             {
                 return symlink(m_strVictim.c_str(), pszPath);
             }},
            {"a link to nothing",
             [this](const char *pszPath)
             {
                 return symlink((m_dir.strPath + "/made").c_str(), pszPath);
             }},
            {"a FIFO",
             [](const char *pszPath)
             {
                 return mkfifo(pszPath, 0600);
             }},
        };
        const std::string strNode = m_dir.strPath + "/node";
        if (mknod(strNode.c_str(), S_IFBLK | 0600, makedev(7, 250)) == 0)
        {
            unlink(strNode.c_str());
            vecPlants.push_back({"a block device", [](const char *pszPath)
                                 {
                                     return mknod(pszPath, S_IFBLK | 0600, makedev(7, 250));
                                 }});
            vecPlants.push_back({"a character device", [](const char *pszPath)
                                 {
                                     return mknod(pszPath, S_IFCHR | 0600, makedev(1, 3));
                                 }});
        }
        return vecPlants;
    }

    static bool IsFile(const std::string &strPath)
    {
        struct stat stStat = {};
        return lstat(strPath.c_str(), &stStat) == 0 && S_ISREG(stStat.st_mode);
    }

    std::string m_strVictim;
    PROCESS_LIMIT m_limit{60}; // a FIFO that is opened holds up for good
};

TEST_F(TrapsPlanted, AreTakenAwayBeforeAStart)
{
    for (const PLANT_S &stPlant : Plants())
    {
        ASSERT_EQ(0, stPlant.fnPlant(PathAt(0).c_str()));
        tagQN_RECORD_HANDLER_S *pSession = Start(-1, "t");
        EXPECT_EQ(PathAt(0), pSession->strFilePath);
        Video(pSession, "frame", true);
        EXPECT_TRUE(IsFile(PathAt(0))) << stPlant.pszName;
        EXPECT_EQ("begin\nframe", TEST_ReadFile(PathAt(0))) << stPlant.pszName;
        EXPECT_EQ(0u, QN_RecordDestroy(pSession));
        EXPECT_FALSE(TEST_Exists(m_dir.strPath + "/made"));
    }
}

TEST_F(TrapsPlanted, AreTakenAwayBeforeASplit)
{
    for (const PLANT_S &stPlant : Plants())
    {
        CLOCK_Set(NOON_MS);
        tagQN_RECORD_HANDLER_S *pSession = Run(60, "t");
        ASSERT_EQ(0, stPlant.fnPlant(PathAt(60).c_str()));
        CLOCK_Step(60000);
        Video(pSession, "next", true);
        EXPECT_EQ(PathAt(60), pSession->strFilePath);
        EXPECT_TRUE(IsFile(PathAt(60))) << stPlant.pszName;
        EXPECT_EQ("begin\nnext", TEST_ReadFile(PathAt(60))) << stPlant.pszName;
        EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    }
}

TEST_F(TrapsPlanted, DoNotLeadAFinishedFileElsewhere)
{
    const std::string strFinal = FinalPath(NOON_MS / 1000, NOON_MS / 1000 + 10, "t");
    ASSERT_EQ(0, symlink(m_strVictim.c_str(), strFinal.c_str()));
    tagQN_RECORD_HANDLER_S *pSession = Run(-1, "t");
    CLOCK_Step(10000);
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_TRUE(IsFile(strFinal));
    EXPECT_EQ("begin\nfirst", TEST_ReadFile(strFinal));

    // A folder in its place: the file keeps the name that it has.
    CLOCK_Set(NOON_MS + 60000);
    ASSERT_EQ(0, mkdir(FinalPath(NOON_MS / 1000 + 60, NOON_MS / 1000 + 70, "t").c_str(), 0755));
    EXPECT_EQ(0u, QN_RecordStart(pSession, "t"));
    Video(pSession, "kept", true);
    CLOCK_Step(10000);
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_EQ("begin\nkept", TEST_ReadFile(PathAt(60)));
}

// With the library's own writer, whose failed open takes its file away again.
TEST_F(TrapsPlanted, AFolderStaysAndTheStartFails)
{
    ASSERT_EQ(0, mkdir(PathAt(0).c_str(), 0755));
    const std::vector<TEST_FRAME_S> &vecFrames = TEST_EncodeH264();
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.stVideo = TEST_VideoParam(QN_CODEC_H264, vecFrames);
    for (const tagQN_MEDIA_API_S *pstApi : {FAKE_MEDIA_Api(), &qn_media_api_ffmpeg})
    {
        tagQN_RECORD_HANDLER_S *pSession = Make(stParam);
        pSession->pstMediaApi = pstApi;
        EXPECT_EQ(7u, QN_RecordStart(pSession, "t"));
        EXPECT_EQ(QN_RECORD_STATE_IDLE, pSession->enRecordState.load());
        EXPECT_TRUE(TEST_Exists(PathAt(0)));
        EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    }
}
