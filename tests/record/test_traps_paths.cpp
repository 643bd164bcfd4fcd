// Two files of one second never share a path, and a long path is as good as a short one.

#include "session_fixture.h"

#include <sys/stat.h>

using namespace libquarrin;

class TrapsPaths : public SESSION_TEST
{
protected:
    // Sets the run back so that the next key frame splits, and leaves the file its second.
    static void MakeDue(tagQN_RECORD_HANDLER_S *pSession)
    {
        pthread_mutex_lock(&pSession->stMutex);
        pSession->u32RunSeconds = 100000;
        pthread_mutex_unlock(&pSession->stMutex);
    }

    // Starts and splits until both happen in one second. True when they did.
    bool SplitInTheSecondOfTheStart(tagQN_RECORD_HANDLER_S *pSession, std::string &strOldPath)
    {
        for (int32_t i = 0; i < 10; ++i)
        {
            EXPECT_EQ(0u, QN_RecordStop(pSession));
            TEST_WaitForNextSecond();
            EXPECT_EQ(0u, QN_RecordStart(pSession, "t"));
            strOldPath = pSession->strFilePath;
            Video(pSession, "old", true);
            MakeDue(pSession);
            Video(pSession, "new", true);
            if (strOldPath == pSession->strFilePath)
            {
                return true;
            }
        }
        return false;
    }
};

TEST_F(TrapsPaths, SplitInTheSecondOfTheStartKeepsTheNewFile)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    pSession->stParam.bAutoSplit = 1;
    pSession->stParam.u32SplitSeconds = 60;
    std::string strOldPath;
    ASSERT_TRUE(SplitInTheSecondOfTheStart(pSession, strOldPath));
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_MEDIA_OpenWriters() == 1; })) << "the old writer is closed";
    ASSERT_TRUE(WaitForIdle());
    EXPECT_EQ("begin\nnew", TEST_ReadFile(strOldPath)) << "the new file has the name, and its own bytes only";
    Video(pSession, "more", false);
    EXPECT_EQ("begin\nnewmore", TEST_ReadFile(strOldPath));

    Age(pSession, 10);
    const time_t tStart = pSession->tFileStart;
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    ASSERT_EQ(1u, Names().size());
    EXPECT_EQ(0u, Names()[0].find(QN_STORAGE_PrettierTime(tStart) + ".To.2"));
}

TEST_F(TrapsPaths, TheOldFilesNameIsFreeBeforeTheNewOneIsOpened)
{
    static std::string strPath;
    static bool bPresent;
    static const tagQN_MEDIA_API_S stApi = []
    {
        tagQN_MEDIA_API_S stCopy = *FAKE_MEDIA_Api();
        stCopy.pfnWriteOpen = [](tagQN_RECORD_PARAM_S *pstParam, const char *pszPath)
        {
            bPresent = TEST_Exists(pszPath);
            strPath = pszPath;
            return FAKE_MEDIA_Api()->pfnWriteOpen(pstParam, pszPath);
        };
        return stCopy;
    }();
    tagQN_RECORD_HANDLER_S *pSession = Make();
    pSession->pstMediaApi = &stApi;
    pSession->stParam.bAutoSplit = 1;
    pSession->stParam.u32SplitSeconds = 60;
    std::string strOldPath;
    ASSERT_TRUE(SplitInTheSecondOfTheStart(pSession, strOldPath));
    EXPECT_EQ(strOldPath, strPath);
    EXPECT_FALSE(bPresent);
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
}

TEST_F(TrapsPaths, DurationZeroUnderAStalledEventThreadLosesNoFrameOfTheLastFile)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(0);
    StallDispatcher();
    Video(pSession, "one", true);
    Video(pSession, "two", false);
    const std::string strPath = pSession->strFilePath;
    FAKE_PLATFORM_Release();
    EXPECT_TRUE(TEST_WaitFor([] { return FAKE_MEDIA_OpenWriters() == 1; }));
    ASSERT_TRUE(WaitForIdle());
    EXPECT_EQ("begin\nonetwo", TEST_ReadFile(strPath));
}

TEST_F(TrapsPaths, ASecondStartUnderOneNameWaitsForTheNextSecond)
{
    tagQN_RECORD_HANDLER_S *pFirst = Make();
    tagQN_RECORD_HANDLER_S *pSecond = Make();
    EXPECT_EQ(0u, QN_RecordStart(pFirst, "same"));
    EXPECT_EQ(0u, QN_RecordStart(pSecond, "same"));
    EXPECT_NE(pFirst->strFilePath, pSecond->strFilePath);
    EXPECT_NE(pFirst->tFileStart, pSecond->tFileStart);
    EXPECT_EQ(QN_STORAGE_GenerateRecordingFile(m_strMount.c_str(), "rec", pSecond->tFileStart, "same", "mkv"),
              pSecond->strFilePath);
    Video(pFirst, "first", true);
    Video(pSecond, "second", true);
    EXPECT_EQ("begin\nfirst", TEST_ReadFile(pFirst->strFilePath));
    EXPECT_EQ("begin\nsecond", TEST_ReadFile(pSecond->strFilePath));
}

TEST_F(TrapsPaths, StartsOfManyThreadsUnderOneNameAllGetTheirOwn)
{
    std::vector<tagQN_RECORD_HANDLER_S *> vecSessions;
    std::vector<std::thread> vecThreads;
    for (int32_t i = 0; i < 3; ++i)
    {
        vecSessions.push_back(Make());
    }
    for (tagQN_RECORD_HANDLER_S *pSession : vecSessions)
    {
        vecThreads.emplace_back([pSession] { EXPECT_EQ(0u, QN_RecordStart(pSession, "same")); });
    }
    for (std::thread &thread : vecThreads)
    {
        thread.join();
    }
    EXPECT_EQ(3u, Names().size());
}

TEST_F(TrapsPaths, StartsUnderDifferentNamesDoNotWait)
{
    tagQN_RECORD_HANDLER_S *apSessions[4];
    const char *apszTags[] = {"a", "b", nullptr, "c"};
    TEST_WaitForNextSecond();
    for (int32_t i = 0; i < 4; ++i)
    {
        apSessions[i] = Make();
        EXPECT_EQ(0u, QN_RecordStart(apSessions[i], apszTags[i]));
    }
    EXPECT_LE(apSessions[3]->tFileStart - apSessions[0]->tFileStart, 1);
    EXPECT_EQ(4u, Names().size());
}

TEST_F(TrapsPaths, ASplitWhoseNameIsTakenWaitsForItsNextKeyFrame)
{
    tagQN_RECORD_HANDLER_S *pOld = Run(60, "same");
    tagQN_RECORD_HANDLER_S *pNew = nullptr;
    bool bMet = false;
    for (int32_t i = 0; i < 10 && !bMet; ++i)
    {
        TEST_WaitForNextSecond();
        pNew = Start(-1, "same"); // has the name of this second
        MakeDue(pOld);
        const size_t before = FAKE_MEDIA_Writers().size();
        const time_t tBefore = time(nullptr);
        Video(pOld, "waits", true);
        bMet = time(nullptr) == pNew->tFileStart && tBefore == pNew->tFileStart;
        if (bMet)
        {
            EXPECT_EQ(before, FAKE_MEDIA_Writers().size()) << "the frame went into the old file";
            EXPECT_NE(pOld->strFilePath, pNew->strFilePath);
            TEST_WaitForNextSecond();
            Video(pOld, "other", false);
            EXPECT_EQ(before, FAKE_MEDIA_Writers().size());
            Video(pOld, "key", true);
            EXPECT_EQ(before + 1, FAKE_MEDIA_Writers().size());
            EXPECT_EQ("begin\nkey", TEST_ReadFile(pOld->strFilePath));
        }
        EXPECT_EQ(0u, QN_RecordDestroy(pNew));
    }
    EXPECT_TRUE(bMet);
}

TEST_F(TrapsPaths, AStopGivesTheNameBack)
{
    tagQN_RECORD_HANDLER_S *pFirst = Make();
    tagQN_RECORD_HANDLER_S *pSecond = Make();
    for (int32_t i = 0; i < 10; ++i)
    {
        TEST_WaitForNextSecond();
        EXPECT_EQ(0u, QN_RecordStart(pFirst, "same"));
        EXPECT_EQ(0u, QN_RecordStop(pFirst));
        EXPECT_EQ(0u, QN_RecordStart(pSecond, "same"));
        const bool bSame = pFirst->tFileStart == pSecond->tFileStart;
        EXPECT_EQ(0u, QN_RecordStop(pSecond));
        if (bSame)
        {
            EXPECT_EQ(pFirst->strFilePath, pSecond->strFilePath);
            return;
        }
    }
    FAIL() << "the second start always waited";
}

class TrapsLongPath : public CARD_TEST
{
};

TEST_F(TrapsLongPath, RecordsFinishesAndMovesAside)
{
    FAKE_MEDIA_Reset();
    for (int32_t i = 0; i < 3; ++i)
    {
        m_strMount += "/" + std::string(200, static_cast<char>('a' + i));
        m_stParam.pszMountPoint = m_strMount;
        mkdir(m_strMount.substr(0, m_strMount.rfind('/')).c_str(), 0755);
    }
    InitMounted();
    tagQN_RECORD_PARAM_S stParam = {};
    stParam.stVideo.bEnable = 1;
    tagQN_RECORD_HANDLER_S *pSession = nullptr;
    ASSERT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession));
    pSession->pstMediaApi = FAKE_MEDIA_Api();
    const std::string strTag(100, 't');
    ASSERT_EQ(0u, QN_RecordStart(pSession, strTag.c_str()));
    EXPECT_TRUE(TEST_Exists(pSession->strFilePath));
    pSession->tFileStart -= 10;
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    ASSERT_EQ(1u, TEST_List(Folder(0)).size());
    EXPECT_NE(std::string::npos, TEST_List(Folder(0))[0].find("[" + strTag + "].mkv"));
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    EXPECT_EQ(0u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecFiles));
    EXPECT_EQ(1u, vecFiles.size());
    EXPECT_TRUE(FAKE_MEDIA_Violations().empty());
}
