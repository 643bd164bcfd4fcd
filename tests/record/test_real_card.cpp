// From encoded frames to files and back: real H.264 and AAC through a session, split, finished, listed and replayed.

#include "session_fixture.h"

#include <algorithm>

extern "C"
{
#include <libavutil/log.h>
}

#include "support/streams.h"

using namespace libquarrin;

/// One frame, as it went in or as it came back.
struct MEDIA_FRAME_S
{
    std::vector<uint8_t> vecData;
    uint64_t u64Pts;
    bool bKey;
    bool bVideo;
};

class RealCard : public SESSION_TEST, public ::testing::WithParamInterface<int32_t>
{
protected:
    void SetUp() override
    {
        SESSION_TEST::SetUp();
        av_log_set_level(AV_LOG_QUIET);
    }

    QN_FILE_FMT_E Format() const
    {
        return static_cast<QN_FILE_FMT_E>(GetParam());
    }

    // MP4 and MOV: time stamps are frame counts, and packets have no durations.
    bool CountsFrames() const
    {
        return Format() == QN_FILE_FMT_E_MP4 || Format() == QN_FILE_FMT_E_MOV;
    }

    const char *Ext() const
    {
        return QN_STORAGE_FmtType2FileExt(Format());
    }

    // A session with the real back end, splits after a minute.
    tagQN_RECORD_HANDLER_S *MakeReal(bool bVideo, bool bAudio)
    {
        tagQN_RECORD_PARAM_S stParam = {};
        stParam.enFormat = Format();
        if (bVideo)
        {
            stParam.stVideo = TEST_VideoParam(QN_CODEC_H264, Pictures());
        }
        if (bAudio)
        {
            stParam.stAudio = TEST_AudioParam();
        }
        stParam.bAutoSplit = 1;
        stParam.u32SplitSeconds = 60;
        tagQN_RECORD_HANDLER_S *pSession = nullptr;
        EXPECT_EQ(0u, QN_RecordInit(m_pHandle, &stParam, pSession));
        return pSession;
    }

    static const std::vector<TEST_FRAME_S> &Pictures()
    {
        return TEST_EncodeH264(64, 64, 25, 5, 75);
    }

    static const std::vector<TEST_FRAME_S> &Tones()
    {
        return TEST_EncodeAac(48000, 2, 140);
    }

    // Writes one frame and notes it.
    void Write(tagQN_RECORD_HANDLER_S *pSession, const TEST_FRAME_S &stFrame, bool bVideo, uint64_t u64Pts)
    {
        std::vector<uint8_t> vecData = stFrame.vecData;
        EXPECT_EQ(0u, QN_RecordWriteFrame(pSession, vecData.data(), static_cast<uint32_t>(vecData.size()), u64Pts,
                                          stFrame.bKey ? 1 : 0, bVideo ? 1 : 0));
        m_vecFiles.back().push_back({stFrame.vecData, u64Pts, stFrame.bKey, bVideo});
    }

    // Writes pictures with their tones; a new file is due before picture split (a key frame) of each 25.
    void WriteInterleaved(tagQN_RECORD_HANDLER_S *pSession, size_t pictures, size_t split)
    {
        size_t tone = 0;
        for (size_t i = 0; i < pictures; ++i)
        {
            const uint64_t u64Pts = 1000 + i * 40;
            if (i > 0 && i % split == 0)
            {
                BeginNextFile(pSession);
            }
            Write(pSession, Pictures()[i], true, u64Pts);
            for (; 1000 + tone * 1024 / 48 <= u64Pts && tone < Tones().size(); ++tone)
            {
                Write(pSession, Tones()[tone], false, 1000 + tone * 1024 / 48);
            }
        }
    }

    // The next key frame will split: the file is more than a minute old, and ten seconds older than the one before, so
    // that no two have one name, whenever the clock steps.
    void BeginNextFile(tagQN_RECORD_HANDLER_S *pSession)
    {
        Age(pSession, 60 + 10 * static_cast<int32_t>(m_vecFiles.size()));
        m_vecFiles.emplace_back();
    }

    // Every frame of a file, through the replay calls.
    static std::vector<MEDIA_FRAME_S> ReadAll(tagQN_REPLAY_HANDLER_S *pReplay)
    {
        std::vector<MEDIA_FRAME_S> vecFrames;
        uint8_t *pu8Data = nullptr;
        uint32_t u32Size = 0;
        uint64_t u64Pts = 0;
        bool bKey = false;
        bool bVideo = false;
        uint32_t u32Result = 0;
        while ((u32Result = QN_ReplayReadFrame(pReplay, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo)) == 0)
        {
            vecFrames.push_back({std::vector<uint8_t>(pu8Data, pu8Data + u32Size), u64Pts, bKey, bVideo});
            EXPECT_EQ(0u, QN_ReplayFreeFrame(pReplay, pu8Data));
        }
        EXPECT_EQ(9u, u32Result);
        return vecFrames;
    }

    static std::vector<MEDIA_FRAME_S> Of(const std::vector<MEDIA_FRAME_S> &vecFrames, bool bVideo)
    {
        std::vector<MEDIA_FRAME_S> vecPart;
        std::copy_if(vecFrames.begin(), vecFrames.end(), std::back_inserter(vecPart),
                     [bVideo](const MEDIA_FRAME_S &stFrame) { return stFrame.bVideo == bVideo; });
        return vecPart;
    }

    // The bytes of a picture's NAL units. Containers change the start codes into lengths, and MPEG-TS adds a delimiter.
    std::vector<uint8_t> Payload(const std::vector<uint8_t> &vecData) const
    {
        std::vector<uint8_t> vecOut;
        size_t at = 0;
        while (at + 4 <= vecData.size())
        {
            const uint32_t u32Head = static_cast<uint32_t>(vecData[at]) << 24 |
                                     static_cast<uint32_t>(vecData[at + 1]) << 16 |
                                     static_cast<uint32_t>(vecData[at + 2]) << 8 | vecData[at + 3];
            size_t end = at + 4;
            if (u32Head == 1)
            {
                const uint8_t au8Code[] = {0, 0, 0, 1};
                end = static_cast<size_t>(
                    std::search(vecData.begin() + static_cast<long>(end), vecData.end(), au8Code, au8Code + 4) -
                    vecData.begin());
            }
            else
            {
                end += u32Head;
            }
            EXPECT_LE(end, vecData.size());
            end = std::min(end, vecData.size());
            const bool bDelimiter = at + 4 < end && (vecData[at + 4] & 0x1f) == 9;
            if (!bDelimiter)
            {
                vecOut.insert(vecOut.end(), vecData.begin() + static_cast<long>(at) + 4,
                              vecData.begin() + static_cast<long>(end));
            }
            at = end;
        }
        return vecOut;
    }

    // A tone as the container hands it back: MPEG-TS keeps the ADTS header.
    std::vector<uint8_t> Tone(const std::vector<uint8_t> &vecData) const
    {
        const size_t skip = Format() == QN_FILE_FMT_E_TS ? 0 : 7;
        return std::vector<uint8_t>(vecData.begin() + static_cast<long>(skip), vecData.end());
    }

    std::vector<std::vector<MEDIA_FRAME_S>> m_vecFiles{1}; ///< what went into each file
};

INSTANTIATE_TEST_SUITE_P(Containers, RealCard, ::testing::Values(0, 1, 2, 3),
                         [](const auto &stTest)
                         { return std::string(QN_STORAGE_FmtType2FileExt(static_cast<QN_FILE_FMT_E>(stTest.param))); });

TEST_P(RealCard, GivesEveryFrameOfEveryFileBack)
{
    tagQN_RECORD_HANDLER_S *pSession = MakeReal(true, true);
    ASSERT_NE(nullptr, pSession);
    ASSERT_EQ(0u, QN_RecordStart(pSession, "door"));
    WriteInterleaved(pSession, 75, 25);
    EXPECT_GT(QN_REcordGetWriteBytes(pSession), 0);
    Age(pSession, 30);
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    EXPECT_EQ(0u, QN_RecordDestroy(pSession)); // finishes what was split off
    ASSERT_EQ(3u, m_vecFiles.size());

    std::vector<tagQN_FILE_INFO_S> vecInfos;
    ASSERT_EQ(0u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecInfos));
    ASSERT_EQ(3u, vecInfos.size());
    // Ages of 70, 80 and 30 seconds: the list is in order of the starts, which is 80, 70, 30.
    const size_t aFile[] = {1, 0, 2};
    for (size_t i = 0; i < 3; ++i)
    {
        EXPECT_EQ("door", vecInfos[i].strComment);
        EXPECT_EQ(Ext(), vecInfos[i].strExt);
        EXPECT_GE(vecInfos[i].tEnd - vecInfos[i].tStart, 30);
        tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
        ASSERT_EQ(0u, QN_ReplayOpen(m_pHandle, vecInfos[i], tagQN_REPLAY_PARAM_S(), pReplay));
        const std::vector<MEDIA_FRAME_S> vecBack = ReadAll(pReplay);
        for (const bool bVideo : {true, false})
        {
            const std::vector<MEDIA_FRAME_S> vecOut = Of(vecBack, bVideo);
            const std::vector<MEDIA_FRAME_S> vecIn = Of(m_vecFiles[aFile[i]], bVideo);
            // The last frame of an MP4 track has no duration: libavformat may leave a tone out that ends the track.
            const bool bLastOut = CountsFrames() && !bVideo && vecOut.size() + 1 == vecIn.size();
            ASSERT_EQ(vecIn.size() - (bLastOut ? 1 : 0), vecOut.size()) << i << (bVideo ? " video" : " audio");
            for (size_t j = 0; j < vecOut.size(); ++j)
            {
                EXPECT_EQ(bVideo ? Payload(vecIn[j].vecData) : Tone(vecIn[j].vecData),
                          bVideo ? Payload(vecOut[j].vecData) : vecOut[j].vecData)
                    << i << " " << j;
                if (bVideo)
                {
                    EXPECT_EQ(vecIn[j].bKey, vecOut[j].bKey) << i << " " << j;
                }
            }
        }
        EXPECT_TRUE(Of(vecBack, true).at(0).bKey) << "a file begins with a key frame";
        EXPECT_EQ(0, QN_ReplayClose(pReplay));
    }
}

TEST_P(RealCard, TellsTheStreams)
{
    tagQN_RECORD_HANDLER_S *pSession = MakeReal(true, true);
    ASSERT_EQ(0u, QN_RecordStart(pSession, nullptr));
    WriteInterleaved(pSession, 25, 25);
    Age(pSession, 30);
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    ASSERT_EQ(1u, Names().size());
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    ASSERT_EQ(0u, QN_ReplayOpenByFileName(m_pHandle, Names()[0], tagQN_REPLAY_PARAM_S(), pReplay));
    tagQN_METADATA_S stMetadata = {};
    stMetadata.au32VideoReserved[0] = 77;
    EXPECT_EQ(0u, QN_ReplayReadMetadata(pReplay, &stMetadata));
    EXPECT_EQ(0u, stMetadata.u32VideoCodec);
    EXPECT_EQ(64u, stMetadata.u32Width);
    EXPECT_EQ(64u, stMetadata.u32Height);
    EXPECT_NEAR(25.0, stMetadata.u32FrameRate, 1.0);
    EXPECT_GT(stMetadata.u32VideoTimeBaseDen, 0u);
    EXPECT_EQ(0u, stMetadata.bHasAudio) << "audio behind the video is not chosen";
    EXPECT_EQ(77u, stMetadata.au32VideoReserved[0]);
    EXPECT_EQ(0, QN_ReplayClose(pReplay));
}

TEST_P(RealCard, SeeksToTheKeyFrameAtOrBeforeASecond)
{
    tagQN_RECORD_HANDLER_S *pSession = MakeReal(true, false);
    ASSERT_EQ(0u, QN_RecordStart(pSession, nullptr));
    for (size_t i = 0; i < 75; ++i)
    {
        Write(pSession, Pictures()[i], true, 1000 + i * 40);
    }
    Age(pSession, 30);
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    ASSERT_EQ(1u, Names().size());
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    ASSERT_EQ(0u, QN_ReplayOpenByFileName(m_pHandle, Names()[0], tagQN_REPLAY_PARAM_S(), pReplay));
    const size_t all = ReadAll(pReplay).size();
    EXPECT_EQ(75u, all);
    uint64_t u64Before = UINT64_MAX;
    for (const uint64_t u64Second : {2u, 1u, 0u})
    {
        EXPECT_LT(QN_ReplaySeekTime(pReplay, u64Second), 0x80000000u);
        const std::vector<MEDIA_FRAME_S> vecRest = ReadAll(pReplay);
        ASSERT_FALSE(vecRest.empty());
        EXPECT_LT(vecRest[0].u64Pts, u64Before) << u64Second;
        u64Before = vecRest[0].u64Pts;
        if (Format() != QN_FILE_FMT_E_TS) // which has no index: its seek ends near the place
        {
            EXPECT_TRUE(vecRest[0].bKey) << u64Second;
            EXPECT_EQ(75 - 25 * u64Second, vecRest.size()) << u64Second;
            EXPECT_EQ(Payload(Pictures()[static_cast<size_t>(25 * u64Second)].vecData), Payload(vecRest[0].vecData))
                << u64Second;
        }
    }
    EXPECT_EQ(0, QN_ReplayClose(pReplay));
}

TEST_P(RealCard, RecordsAudioAlone)
{
    tagQN_RECORD_HANDLER_S *pSession = MakeReal(false, true);
    ASSERT_EQ(0u, QN_RecordStart(pSession, nullptr));
    for (size_t i = 0; i < 40; ++i)
    {
        if (i == 20)
        {
            BeginNextFile(pSession);
        }
        Write(pSession, Tones()[i], false, 1000 + i * 1024 / 48);
    }
    Age(pSession, 30);
    EXPECT_EQ(0u, QN_RecordDestroy(pSession));
    std::vector<tagQN_FILE_INFO_S> vecInfos;
    ASSERT_EQ(0u, QN_ReplayListFile(m_pHandle, QN_VOLUME_ID_E_0, &vecInfos));
    ASSERT_EQ(2u, vecInfos.size());
    for (const tagQN_FILE_INFO_S &stInfo : vecInfos)
    {
        tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
        ASSERT_EQ(0u, QN_ReplayOpen(m_pHandle, stInfo, tagQN_REPLAY_PARAM_S(), pReplay));
        const std::vector<MEDIA_FRAME_S> vecBack = ReadAll(pReplay);
        EXPECT_EQ(20u, vecBack.size());
        EXPECT_TRUE(Of(vecBack, true).empty());
        EXPECT_EQ(0, QN_ReplayClose(pReplay));
    }
}

// The header written at the open makes the file non-empty; a transport stream has none, it begins with its packets.
TEST_P(RealCard, KeepsATenSecondFileWithoutAFrame)
{
    tagQN_RECORD_HANDLER_S *pSession = MakeReal(true, true);
    ASSERT_EQ(0u, QN_RecordStart(pSession, nullptr));
    Age(pSession, 10);
    const std::string strPrinted = TEST_Printed([&] { EXPECT_EQ(0u, QN_RecordStop(pSession)); });
    if (Format() == QN_FILE_FMT_E_TS)
    {
        EXPECT_NE(std::string::npos, strPrinted.find(" ,size is zero\n")) << strPrinted;
        EXPECT_TRUE(Names().empty());
        return;
    }
    EXPECT_NE(std::string::npos, strPrinted.find("] rename ")) << strPrinted;
    ASSERT_EQ(1u, Names().size());
    EXPECT_EQ(std::string::npos, Names()[0].find("unknown"));
}

TEST_P(RealCard, EndsAPulledCardWithAFileThatPlays)
{
    tagQN_RECORD_HANDLER_S *pSession = MakeReal(true, false);
    ASSERT_EQ(0u, QN_RecordStart(pSession, nullptr));
    for (size_t i = 0; i < 25; ++i)
    {
        Write(pSession, Pictures()[i], true, 1000 + i * 40);
    }
    Age(pSession, 30);
    QN_EVENT_PushEvent(m_pHandle, QN_EVENT_E_HOTPLUG_OUT, nullptr);
    ASSERT_TRUE(WaitForState(QN_STATE_E_UNPLUGIN));
    std::vector<uint8_t> vecData = Pictures()[25].vecData;
    EXPECT_EQ(0u, QN_RecordWriteFrame(pSession, vecData.data(), static_cast<uint32_t>(vecData.size()), 2000, 1, 1));
    EXPECT_EQ(3u, QN_RecordStart(pSession, nullptr));
    EXPECT_EQ(0u, QN_RecordStop(pSession));
    ASSERT_EQ(1u, Names().size());
    const TEST_MEDIA_S stMedia = TEST_ReadMedia(Folder(0) + "/" + Names()[0], true, true);
    ASSERT_TRUE(stMedia.bOpened);
    EXPECT_EQ(25u, stMedia.vecPackets.size());
    // A picture without a duration is decoded and not shown.
    EXPECT_EQ(CountsFrames() ? 24 : 25, stMedia.vecStreams.at(0).s32Decoded);
    EXPECT_EQ(0, stMedia.vecStreams.at(0).s32DecodeErrors);
}
