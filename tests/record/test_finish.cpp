// Finishing: the writer is closed, then the file is thrown away or gets its start-to-end name.

#include "session_fixture.h"

#include <sys/stat.h>

using namespace libquarrin;

using FINISH = uint32_t (*)(tagQN_RECORD_HANDLER_S *, void *, const std::string &, time_t, time_t);

/// The two functions that do the same steps.
struct FINISH_CASE_S
{
    FINISH pfnFinish;
    const char *pszFunc;
};

class Finish : public SESSION_TEST, public ::testing::WithParamInterface<FINISH_CASE_S>
{
protected:
    void SetUp() override
    {
        SESSION_TEST::SetUp();
        m_pSession = SESSION_TEST::Make();
        m_pSession->strNameTag = "tag";
        m_strPath = Folder(0) + "/clip.mkv";
    }

    void *Open()
    {
        return FAKE_MEDIA_Api()->pfnWriteOpen(&m_pSession->stParam, m_strPath.c_str());
    }

    // Finishes a writer; what it prints.
    std::string Run(void *pWriter, time_t tStart, time_t tEnd, uint32_t u32Expected = 0)
    {
        const size_t logs = FAKE_PLATFORM_Logs().size();
        uint32_t u32Result = 99;
        const std::string strPrinted =
            TEST_Printed([&] { u32Result = GetParam().pfnFinish(m_pSession, pWriter, m_strPath, tStart, tEnd); });
        EXPECT_EQ(u32Expected, u32Result);
        EXPECT_EQ(logs, FAKE_PLATFORM_Logs().size()) << "standard output only";
        EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
        return strPrinted;
    }

    std::string Tag() const
    {
        return std::string("\\[") + GetParam().pszFunc + ":\\d+\\] ";
    }

    tagQN_RECORD_HANDLER_S *m_pSession = nullptr;
    std::string m_strPath;
};

INSTANTIATE_TEST_SUITE_P(Both, Finish,
                         ::testing::Values(FINISH_CASE_S{QN_RecordClosePostProcess, "QN_RecordClosePostProcess"},
                                           FINISH_CASE_S{QN_RecordClosePostProcessAync,
                                                         "QN_RecordClosePostProcessAync"}),
                         [](const auto &stTest) { return std::string(stTest.param.pszFunc); });

TEST_P(Finish, RefusesANullWriterAndLeavesTheFile)
{
    TEST_Touch(m_strPath, "x");
    EXPECT_EQ("", Run(nullptr, 1000, 2000, 1));
    EXPECT_EQ("x", TEST_ReadFile(m_strPath));
}

TEST_P(Finish, TakesASessionOfAHostsOwnMaking)
{
    tagQN_RECORD_HANDLER_S stOwn;
    stOwn.pstHandle = m_pHandle;
    stOwn.pstMediaApi = FAKE_MEDIA_Api();
    stOwn.strNameTag = "own";
    EXPECT_EQ(0u, GetParam().pfnFinish(&stOwn, Open(), m_strPath, 1000, 1010));
    EXPECT_EQ("begin\n", TEST_ReadFile(FinalPath(1000, 1010, "own")));
    EXPECT_EQ(0, FAKE_MEDIA_OpenWriters());
}

TEST_P(Finish, RemovesAFileShorterThanFiveSeconds)
{
    for (const time_t tEnd : {1004, 1000, 1001, 900}) // the last: a clock that was set back
    {
        const std::string strPrinted = Run(Open(), 1000, tEnd);
        EXPECT_FALSE(TEST_Exists(m_strPath));
        EXPECT_TRUE(TEST_HasLine(strPrinted, Tag() + "remove " + TEST_Plain(m_strPath) + " ,time is less 5s"))
            << strPrinted;
    }
    EXPECT_TRUE(Names().empty());
}

TEST_P(Finish, KeepsAFileOfExactlyFiveSeconds)
{
    const std::string strFinal = FinalPath(1000, 1005, "tag");
    EXPECT_EQ(Folder(0) + "/1970-01-01-00-16-40.To.1970-01-01-00-16-45.[tag].mkv", strFinal);
    const std::string strPrinted = Run(Open(), 1000, 1005);
    EXPECT_FALSE(TEST_Exists(m_strPath));
    EXPECT_EQ("begin\n", TEST_ReadFile(strFinal));
    EXPECT_TRUE(TEST_HasLine(strPrinted, Tag() + "rename " + TEST_Plain(m_strPath) + " -> " + TEST_Plain(strFinal)))
        << strPrinted;
}

TEST_P(Finish, RemovesAnEmptyFile)
{
    FAKE_MEDIA_SetHeader("");
    const std::string strPrinted = Run(Open(), 1000, 1010);
    EXPECT_TRUE(Names().empty());
    EXPECT_TRUE(TEST_HasLine(strPrinted, Tag() + "remove " + TEST_Plain(m_strPath) + " ,size is zero")) << strPrinted;
}

TEST_P(Finish, LooksAtTheTimeBeforeTheSize)
{
    FAKE_MEDIA_SetHeader("");
    const std::string strPrinted = Run(Open(), 1000, 1001);
    EXPECT_NE(std::string::npos, strPrinted.find("time is less 5s"));
    EXPECT_EQ(std::string::npos, strPrinted.find("size is zero"));
}

TEST_P(Finish, TreatsAFileThatIsNotThereAsOneWithContents)
{
    void *pWriter = Open();
    remove(m_strPath.c_str());
    const std::string strPrinted = Run(pWriter, 1000, 1010);
    EXPECT_TRUE(TEST_HasLine(strPrinted, Tag() + "rename " + TEST_Plain(m_strPath) + " -> " +
                                             TEST_Plain(FinalPath(1000, 1010, "tag"))))
        << strPrinted;
    EXPECT_TRUE(Names().empty());
}

TEST_P(Finish, IgnoresARenameThatFails)
{
    mkdir(FinalPath(1000, 1010, "tag").c_str(), 0755); // a folder is in the way
    const std::string strPrinted = Run(Open(), 1000, 1010);
    EXPECT_NE(std::string::npos, strPrinted.find("] rename "));
    EXPECT_TRUE(TEST_Exists(m_strPath)) << "it keeps its name";
}

TEST_P(Finish, ClosesBeforeItLooksAtTheFile)
{
    static std::string strSeen;
    static const tagQN_MEDIA_API_S stApi = []
    {
        tagQN_MEDIA_API_S stCopy = *FAKE_MEDIA_Api();
        stCopy.pfnWriteClose = [](void *pWriter) -> int32_t
        {
            strSeen = "closed";
            TEST_Touch(*static_cast<std::string *>(pWriter), "trailer"); // what the close writes counts
            return -1;                                                   // and its result does not
        };
        return stCopy;
    }();
    strSeen.clear();
    m_pSession->pstMediaApi = &stApi;
    TEST_Touch(m_strPath);
    Run(&m_strPath, 1000, 1005);
    EXPECT_EQ("closed", strSeen);
    EXPECT_EQ("trailer", TEST_ReadFile(FinalPath(1000, 1005, "tag")));
}

TEST_P(Finish, UsesTheContainersExtension)
{
    const char *apszExt[] = {"mkv", "ts", "mp4", "mov"};
    for (int32_t s32Format = 0; s32Format < 4; ++s32Format)
    {
        m_pSession->stParam.enFormat = static_cast<QN_FILE_FMT_E>(s32Format);
        Run(Open(), 2000, 2009);
        EXPECT_TRUE(TEST_Exists(FinalPath(2000, 2009, "tag", apszExt[s32Format]))) << s32Format;
    }
}

class FinishAtStop : public SESSION_TEST
{
};

TEST_F(FinishAtStop, RemovesTheFileAfterLessThanFiveSeconds)
{
    tagQN_RECORD_HANDLER_S *pSession = Run();
    pthread_mutex_lock(&pSession->stMutex);
    pSession->tFileStart = time(nullptr) - 3; // 4 at most, should a second pass
    pthread_mutex_unlock(&pSession->stMutex);
    const std::string strPath = pSession->strFilePath;
    const std::string strPrinted = TEST_Printed([&] { EXPECT_EQ(0u, QN_RecordStop(pSession)); });
    EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[QN_RecordClosePostProcess:\\d+\\] remove " + TEST_Plain(strPath) +
                                             " ,time is less 5s"))
        << strPrinted;
    EXPECT_TRUE(Names().empty());
}

TEST_F(FinishAtStop, KeepsTheFileAfterFiveSeconds)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(-1, "kept");
    Age(pSession, 5);
    const time_t tStart = pSession->tFileStart;
    const std::string strPath = pSession->strFilePath;
    const time_t tBefore = time(nullptr);
    const std::string strPrinted = TEST_Printed([&] { EXPECT_EQ(0u, QN_RecordStop(pSession)); });
    ASSERT_EQ(1u, Names().size());
    const std::string strFinal = Folder(0) + "/" + Names()[0];
    EXPECT_TRUE(strFinal == FinalPath(tStart, tBefore, "kept") || strFinal == FinalPath(tStart, tBefore + 1, "kept"))
        << strFinal;
    EXPECT_TRUE(TEST_HasLine(strPrinted, "\\[QN_RecordClosePostProcess:\\d+\\] rename " + TEST_Plain(strPath) + " -> " +
                                             TEST_Plain(strFinal)))
        << strPrinted;
    EXPECT_EQ("begin\nfirst", TEST_ReadFile(strFinal));
}

TEST_F(FinishAtStop, FindsNoFileOfATableThatWritesNone)
{
    tagQN_RECORD_HANDLER_S *pSession = Make();
    pSession->pstMediaApi = &qn_media_api_wav;
    EXPECT_EQ(0u, QN_RecordStart(pSession, nullptr));
    EXPECT_EQ(0u, Video(pSession, "key", true));
    EXPECT_EQ(-1, QN_REcordGetWriteBytes(pSession));
    Age(pSession, 10);
    const std::string strPrinted = TEST_Printed([&] { EXPECT_EQ(0u, QN_RecordStop(pSession)); });
    EXPECT_NE(std::string::npos, strPrinted.find("] rename "));
    EXPECT_TRUE(Names().empty());
}
