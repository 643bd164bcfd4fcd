// Reading, seeking and closing.

#include "replay_fixture.h"

using namespace libquarrin;

namespace
{

// A reader of the test's own: notes the call that reached it.
struct FAKE_READER_S
{
    std::string strCall;
    void *pReader = nullptr;
    void *pArg = nullptr;
    uint32_t u32Arg = 0;
    int32_t s32Result = 0;
    int32_t s32Closes = 0;
};
FAKE_READER_S g_stReader;

int32_t Note(const char *pszCall, void *pReader, void *pArg, uint32_t u32Arg = 0)
{
    g_stReader.strCall = pszCall;
    g_stReader.pReader = pReader;
    g_stReader.pArg = pArg;
    g_stReader.u32Arg = u32Arg;
    return g_stReader.s32Result;
}

int32_t NoteMetadata(void *pReader, tagQN_METADATA_S *pstMetadata)
{
    return Note("metadata", pReader, pstMetadata);
}

int32_t NoteGet(void *pReader, uint8_t **ppu8Data, uint32_t *pu32Size, uint64_t *pu64Pts, bool *pbKey, bool *pbVideo)
{
    *pu32Size = 3;
    *pu64Pts = 4;
    *pbKey = true;
    *pbVideo = true;
    return Note("get", pReader, ppu8Data);
}

int32_t NoteRelease(void *pReader, uint8_t *pu8Data)
{
    return Note("release", pReader, pu8Data);
}

int32_t NoteSeek(void *pReader, uint32_t u32Seconds)
{
    return Note("seek", pReader, nullptr, u32Seconds);
}

int32_t NoteClose(void *pReader)
{
    g_stReader.s32Closes += 1;
    return Note("close", pReader, nullptr);
}

const tagQN_MEDIA_API_S FAKE_READ_API = {nullptr,     nullptr,  nullptr,   nullptr, NoteMetadata, NoteGet,
                                         NoteRelease, NoteSeek, NoteClose, nullptr, nullptr};

} // namespace

class ReplayRead : public REPLAY_TEST
{
protected:
    // A replay whose reader is the fake one.
    tagQN_REPLAY_HANDLER_S *OpenFake()
    {
        tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
        pReplay->pstMediaApi->pfnReadClose(pReplay->pReader);
        pReplay->pstMediaApi = &FAKE_READ_API;
        pReplay->pReader = &g_stReader;
        g_stReader = FAKE_READER_S();
        return pReplay;
    }

    uint8_t *m_pu8Data = nullptr;
    uint32_t m_u32Size = 0;
    uint64_t m_u64Pts = 0;
    bool m_bKey = false;
    bool m_bVideo = false;
    tagQN_METADATA_S m_stMetadata = {};
};
class ReplayClose : public ReplayRead
{
};

TEST_F(ReplayRead, RefusesANullReplay)
{
    EXPECT_EQ(1u, QN_ReplayReadMetadata(nullptr, &m_stMetadata));
    EXPECT_EQ(1u, QN_ReplayReadFrame(nullptr, &m_pu8Data, &m_u32Size, &m_u64Pts, &m_bKey, &m_bVideo));
    EXPECT_EQ(1u, QN_ReplayFreeFrame(nullptr, m_pu8Data));
    EXPECT_EQ(1u, QN_ReplaySeekTime(nullptr, 0));
}

TEST_F(ReplayRead, GivesEightWithoutAReader)
{
    tagQN_REPLAY_HANDLER_S *pReplay = OpenFake();
    pReplay->pReader = nullptr;
    EXPECT_EQ(8u, QN_ReplayReadMetadata(pReplay, &m_stMetadata));
    EXPECT_EQ(8u, QN_ReplayReadFrame(pReplay, &m_pu8Data, &m_u32Size, &m_u64Pts, &m_bKey, &m_bVideo));
    EXPECT_EQ(8u, QN_ReplayFreeFrame(pReplay, m_pu8Data));
    EXPECT_EQ(8u, QN_ReplaySeekTime(pReplay, 0));
    EXPECT_EQ("", g_stReader.strCall);
}

TEST_F(ReplayRead, HandsEveryCallToItsSlotAndGivesTheResultBack)
{
    tagQN_REPLAY_HANDLER_S *pReplay = OpenFake();
    for (const int32_t s32Result : {0, 1, 9, -1})
    {
        g_stReader.s32Result = s32Result;
        const uint32_t u32Expected = static_cast<uint32_t>(s32Result);
        EXPECT_EQ(u32Expected, QN_ReplayReadMetadata(pReplay, &m_stMetadata));
        EXPECT_EQ("metadata", g_stReader.strCall);
        EXPECT_EQ(&m_stMetadata, g_stReader.pArg);
        EXPECT_EQ(&g_stReader, g_stReader.pReader);

        EXPECT_EQ(u32Expected, QN_ReplayReadFrame(pReplay, &m_pu8Data, &m_u32Size, &m_u64Pts, &m_bKey, &m_bVideo));
        EXPECT_EQ("get", g_stReader.strCall);
        EXPECT_EQ(&m_pu8Data, g_stReader.pArg);
        EXPECT_EQ(3u, m_u32Size);
        EXPECT_EQ(4u, m_u64Pts);
        EXPECT_TRUE(m_bKey && m_bVideo);

        uint8_t u8Frame = 0;
        EXPECT_EQ(u32Expected, QN_ReplayFreeFrame(pReplay, &u8Frame));
        EXPECT_EQ("release", g_stReader.strCall);
        EXPECT_EQ(&u8Frame, g_stReader.pArg);

        EXPECT_EQ(u32Expected, QN_ReplaySeekTime(pReplay, 17));
        EXPECT_EQ("seek", g_stReader.strCall);
        EXPECT_EQ(17u, g_stReader.u32Arg);
    }
}

TEST_F(ReplayRead, SeeksWithTheLowHalfOfTheTime)
{
    tagQN_REPLAY_HANDLER_S *pReplay = OpenFake();
    EXPECT_EQ(0u, QN_ReplaySeekTime(pReplay, 5000000000u));
    EXPECT_EQ(705032704u, g_stReader.u32Arg);
    EXPECT_EQ(0u, QN_ReplaySeekTime(pReplay, UINT64_MAX));
    EXPECT_EQ(UINT32_MAX, g_stReader.u32Arg);
}

TEST_F(ReplayRead, CallsTheReaderUnderTheReplaysMutex)
{
    static tagQN_REPLAY_HANDLER_S *pWatched;
    static int32_t s32Try;
    tagQN_MEDIA_API_S stApi = FAKE_READ_API;
    stApi.pfnReadSeek = [](void *, uint32_t)
    {
        s32Try = pthread_mutex_trylock(&pWatched->mutexReplay);
        return 0;
    };
    tagQN_REPLAY_HANDLER_S *pReplay = OpenFake();
    pWatched = pReplay;
    pReplay->pstMediaApi = &stApi;
    EXPECT_EQ(0u, QN_ReplaySeekTime(pReplay, 1));
    EXPECT_NE(0, s32Try);
    QN_ReplayClose(pReplay);
}

TEST_F(ReplayRead, PassesTheReadersCodesThrough)
{
    tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
    EXPECT_EQ(UINT32_MAX, QN_ReplayFreeFrame(pReplay, nullptr)) << "no frame is out";
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "FFMUXER_ReadReleaseFrame", "frame no get yet, need get first"));

    EXPECT_EQ(0u, QN_ReplayReadFrame(pReplay, &m_pu8Data, &m_u32Size, &m_u64Pts, &m_bKey, &m_bVideo));
    uint8_t *pu8Second = nullptr;
    EXPECT_EQ(1u, QN_ReplayReadFrame(pReplay, &pu8Second, &m_u32Size, &m_u64Pts, &m_bKey, &m_bVideo));
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "FFMUXER_ReadGetFrame", "frame in use, need release first"));

    // Promised: a pointer that is not the frame's gives success, and the frame stays out.
    EXPECT_EQ(0u, QN_ReplayFreeFrame(pReplay, m_pu8Data + 1));
    EXPECT_TRUE(FAKE_PLATFORM_LoggedExactly(3, "FFMUXER_ReadReleaseFrame", "frame not match to release"));
    EXPECT_EQ(1u, QN_ReplayReadFrame(pReplay, &pu8Second, &m_u32Size, &m_u64Pts, &m_bKey, &m_bVideo));
    EXPECT_EQ(0u, QN_ReplayFreeFrame(pReplay, m_pu8Data));

    uint32_t u32Result = 0;
    while ((u32Result = QN_ReplayReadFrame(pReplay, &m_pu8Data, &m_u32Size, &m_u64Pts, &m_bKey, &m_bVideo)) == 0)
    {
        EXPECT_EQ(0u, QN_ReplayFreeFrame(pReplay, m_pu8Data));
    }
    EXPECT_EQ(9u, u32Result) << "end of file";
}

TEST_F(ReplayClose, RefusesNull)
{
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    const std::string strPrinted = TEST_Printed(
        [&]
        {
            EXPECT_EQ(1, QN_ReplayClose(pReplay));
            EXPECT_EQ(1, QN_ReplayClose(pReplay, 0));
            EXPECT_EQ(1, QN_ReplayClose(pReplay, 1));
        });
    EXPECT_EQ("", strPrinted);
}

TEST_F(ReplayClose, PrintsItsThreeStepsAndUnlinks)
{
    tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
    tagQN_REPLAY_HANDLER_S *pOther = Open(pReplay->stFileInfo.strPath);
    m_pHandle->lstReplay.push_back(pReplay); // every entry goes
    const size_t logs = FAKE_PLATFORM_Logs().size();
    const std::string strPrinted = TEST_Printed([&] { EXPECT_EQ(0, QN_ReplayClose(pReplay)); });
    EXPECT_EQ("fn_read_close\npReplayHandler remove\ndelete pReplayHandler\n", strPrinted);
    EXPECT_EQ(nullptr, pReplay);
    EXPECT_EQ((std::list<tagQN_REPLAY_HANDLER_S *>{pOther}), m_pHandle->lstReplay);
    EXPECT_EQ(logs, FAKE_PLATFORM_Logs().size());
    EXPECT_EQ(1u, QN_ReplaySeekTime(pReplay, 0)) << "a null reference now";
}

TEST_F(ReplayClose, LeavesTheListAloneWhenToldSo)
{
    tagQN_REPLAY_HANDLER_S *pReplay = Open(Clip());
    const std::string strPrinted = TEST_Printed([&] { EXPECT_EQ(0, QN_ReplayClose(pReplay, 0)); });
    EXPECT_EQ("fn_read_close\ndelete pReplayHandler\n", strPrinted);
    EXPECT_EQ(nullptr, pReplay);
    EXPECT_EQ(1u, m_pHandle->lstReplay.size()) << "the caller empties the list";
    m_pHandle->lstReplay.clear();
}

TEST_F(ReplayClose, OfAReplayWithoutAReaderClosesNone)
{
    tagQN_REPLAY_HANDLER_S *pReplay = OpenFake();
    pReplay->pReader = nullptr;
    const std::string strPrinted = TEST_Printed([&] { EXPECT_EQ(0, QN_ReplayClose(pReplay, 2)); });
    EXPECT_EQ("pReplayHandler remove\ndelete pReplayHandler\n", strPrinted);
    EXPECT_EQ(0, g_stReader.s32Closes);
}

TEST_F(ReplayClose, CallsTheSlotOnceAndIgnoresItsResult)
{
    tagQN_REPLAY_HANDLER_S *pReplay = OpenFake();
    g_stReader.s32Result = -1;
    EXPECT_EQ(0, QN_ReplayClose(pReplay));
    EXPECT_EQ(1, g_stReader.s32Closes);
    EXPECT_EQ(&g_stReader, g_stReader.pReader);
}

TEST_F(ReplayClose, OfTheHandleClosesWhatIsOpen)
{
    tagQN_REPLAY_HANDLER_S *pReplay = OpenFake();
    ASSERT_NE(nullptr, pReplay);
    Open(Folder(0) + "/2024-03-01-08-15-00.To.2024-03-01-08-15-10.ts");
    const std::string strPrinted = TEST_Printed([&] { EXPECT_EQ(0u, QN_Destroy(m_pHandle)); });
    EXPECT_EQ(1, g_stReader.s32Closes);
    EXPECT_EQ(std::string::npos, strPrinted.find("pReplayHandler remove"));
    EXPECT_NE(std::string::npos,
              strPrinted.find("fn_read_close\ndelete pReplayHandler\nfn_read_close\ndelete pReplayHandler\n"))
        << strPrinted;
}
