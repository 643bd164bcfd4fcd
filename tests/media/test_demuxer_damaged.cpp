#include "demuxer_fixture.h"

#include <algorithm>

using namespace libquarrin;

namespace
{

// Pseudo-random bytes, the same in every run.
class RANDOM_BYTES
{
public:
    explicit RANDOM_BYTES(uint32_t u32Seed) : m_u32State(u32Seed * 2654435761u + 1)
    {
    }

    uint32_t Next()
    {
        m_u32State = m_u32State * 1664525u + 1013904223u;
        return m_u32State >> 8;
    }

    std::string Bytes(size_t u32Len)
    {
        std::string str(u32Len, '\0');
        std::generate(str.begin(), str.end(), [this] { return static_cast<char>(Next() >> 8 & 0xff); });
        return str;
    }

private:
    uint32_t m_u32State;
};

const std::vector<QN_FILE_FMT_E> FORMATS = {QN_FILE_FMT_E_MKV, QN_FILE_FMT_E_TS, QN_FILE_FMT_E_MP4, QN_FILE_FMT_E_MOV,
                                            QN_FILE_FMT_E_AAC};

class DemuxerDamaged : public DEMUXER_TEST
{
protected:
    // Opens a file of these bytes and reads what is there, seeks, and reads again. The frames of the first reading.
    // A leak checker and the count of descriptors see what stays.
    size_t Play(const std::string &strBytes, QN_FILE_FMT_E enFormat)
    {
        TEST_Touch(Path(), strBytes);
        FAKE_PLATFORM_Reset();
        const std::vector<std::string> vecBefore = TEST_List("/proc/self/fd");
        size_t u32Frames = 0;
        std::string strPrinted;
        {
            STDOUT_CAPTURE capture;
            m_pReader = FFMUXER_ReadOpen(nullptr, Path().c_str(), enFormat);
            strPrinted = capture.Text();
        }
        if (m_pReader == nullptr)
        {
            ExpectOneError(strPrinted);
        }
        else
        {
            u32Frames = PlayOpen();
            Close();
        }
        EXPECT_EQ(vecBefore, TEST_List("/proc/self/fd"));
        return u32Frames;
    }

    void ExpectOneError(const std::string &strPrinted)
    {
        const std::vector<FAKE_LOG_S> vecLogs = FAKE_PLATFORM_Logs();
        ASSERT_EQ(1u, vecLogs.size());
        const bool bOpen = vecLogs[0].strText.find("avformat_open_input failed: ") == 0;
        EXPECT_TRUE(bOpen || vecLogs[0].strText.find("avformat_find_stream_info failed: ") == 0);
        ExpectOneLine(strPrinted, 3, "FFMUXER_ReadOpen", vecLogs[0].strText);
    }

    size_t PlayOpen()
    {
        tagQN_METADATA_S st{};
        EXPECT_EQ(0, FFMUXER_ReadMetadata(m_pReader, &st));
        STDOUT_CAPTURE capture; // a read error says so
        const READ_S stRead = TEST_ReadAll(m_pReader, 1000);
        EXPECT_TRUE(stRead.s32End == 8 || stRead.s32End == 9) << stRead.s32End;
        for (const uint32_t u32Seconds : {0u, 1u, 100u})
        {
            (void)FFMUXER_ReadSeek(m_pReader, u32Seconds); // a damaged file may refuse
            (void)TEST_ReadAll(m_pReader, 1000);
        }
        return stRead.vecFrames.size();
    }

    // A whole file of each container, H.264 or H.265 behind audio; raw AAC.
    std::string Whole(QN_FILE_FMT_E enFormat, bool bH265)
    {
        if (enFormat == QN_FILE_FMT_E_AAC)
        {
            TEST_WriteAac(Path("whole"));
            return TEST_ReadFile(Path("whole"));
        }
        const auto container = std::find_if(TEST_CONTAINERS.begin(), TEST_CONTAINERS.end(),
                                            [&](const CONTAINER_S &st) { return st.enFormat == enFormat; });
        EXPECT_TRUE(
            TEST_WriteMedia(Path("whole"), container->pszMuxer, {SOURCE_Aac(), bH265 ? SOURCE_H265() : SOURCE_H264()}));
        return TEST_ReadFile(Path("whole"));
    }

    void CutEverywhere(QN_FILE_FMT_E enFormat, bool bH265)
    {
        const std::string strWhole = Whole(enFormat, bH265);
        const size_t u32Frames = Play(strWhole, enFormat);
        EXPECT_EQ(enFormat == QN_FILE_FMT_E_AAC ? 20u : 35u, u32Frames);
        // Every length in the headers at first, then in larger and larger steps.
        for (size_t u32Len = 0; u32Len < strWhole.size(); u32Len += 1 + u32Len / 12)
        {
            EXPECT_LE(Play(strWhole.substr(0, u32Len), enFormat), u32Frames + 1) << enFormat << " cut at " << u32Len;
        }
        for (size_t u32Less = 1; u32Less < 40; u32Less += 3)
        {
            (void)Play(strWhole.substr(0, strWhole.size() - u32Less), enFormat);
        }
    }
};

} // namespace

TEST_F(DemuxerDamaged, MatroskaCutAtManyLengthsIsReadAsFarAsItGoes)
{
    CutEverywhere(QN_FILE_FMT_E_MKV, false);
    CutEverywhere(QN_FILE_FMT_E_MKV, true);
}

TEST_F(DemuxerDamaged, MpegTsCutAtManyLengthsIsReadAsFarAsItGoes)
{
    CutEverywhere(QN_FILE_FMT_E_TS, false);
    CutEverywhere(QN_FILE_FMT_E_TS, true);
}

TEST_F(DemuxerDamaged, Mp4CutAtManyLengthsIsRefused)
{
    CutEverywhere(QN_FILE_FMT_E_MP4, false);
    CutEverywhere(QN_FILE_FMT_E_MP4, true);
}

TEST_F(DemuxerDamaged, MovCutAtManyLengthsIsRefused)
{
    CutEverywhere(QN_FILE_FMT_E_MOV, false);
    CutEverywhere(QN_FILE_FMT_E_MOV, true);
}

TEST_F(DemuxerDamaged, RawAacCutAtManyLengthsIsReadAsFarAsItGoes)
{
    CutEverywhere(QN_FILE_FMT_E_AAC, false);
}

TEST_F(DemuxerDamaged, HalfAMatroskaOrMpegTsFileStillGivesFrames)
{
    for (const QN_FILE_FMT_E enFormat : {QN_FILE_FMT_E_MKV, QN_FILE_FMT_E_TS, QN_FILE_FMT_E_AAC})
    {
        const std::string strWhole = Whole(enFormat, false);
        const size_t u32Frames = Play(strWhole.substr(0, strWhole.size() / 2), enFormat);
        EXPECT_LT(3u, u32Frames) << enFormat;
        EXPECT_GT(34u, u32Frames) << enFormat;
    }
}

TEST_F(DemuxerDamaged, AnMp4FileWithoutItsIndexIsRefused)
{
    for (const QN_FILE_FMT_E enFormat : {QN_FILE_FMT_E_MP4, QN_FILE_FMT_E_MOV})
    {
        const std::string strWhole = Whole(enFormat, false);
        TEST_Touch(Path(), strWhole.substr(0, strWhole.size() / 2));
        EXPECT_EQ(nullptr, FFMUXER_ReadOpen(nullptr, Path().c_str(), enFormat));
    }
}

TEST_F(DemuxerDamaged, ChangedBytesAnywhereDoNoHarm)
{
    for (const QN_FILE_FMT_E enFormat : FORMATS)
    {
        const std::string strWhole = Whole(enFormat, false);
        for (uint32_t u32Seed = 0; u32Seed < 40; ++u32Seed)
        {
            RANDOM_BYTES random(u32Seed);
            std::string strBytes = strWhole;
            // From a single byte to one in a hundred; the headers are hit more often than their share.
            const size_t u32Changes = 1 + random.Next() % (strWhole.size() / 100);
            for (size_t i = 0; i < u32Changes; ++i)
            {
                const size_t u32Range = i % 2 == 0 ? strBytes.size() : std::min<size_t>(strBytes.size(), 1000);
                strBytes[random.Next() % u32Range] = static_cast<char>(random.Next() & 0xff);
            }
            (void)Play(strBytes, enFormat); // some are refused, some give fewer frames
        }
    }
}

TEST_F(DemuxerDamaged, ChangedBytesInTheIndexDoNoHarm)
{
    for (const QN_FILE_FMT_E enFormat : {QN_FILE_FMT_E_MKV, QN_FILE_FMT_E_MP4, QN_FILE_FMT_E_MOV})
    {
        const std::string strWhole = Whole(enFormat, false);
        for (uint32_t u32Seed = 100; u32Seed < 140; ++u32Seed)
        {
            RANDOM_BYTES random(u32Seed);
            std::string strBytes = strWhole;
            for (size_t i = 0; i < 4; ++i) // MP4 and MOV have it at the end
            {
                const size_t u32Tail = std::min<size_t>(strBytes.size(), 2500);
                strBytes[strBytes.size() - 1 - random.Next() % u32Tail] = static_cast<char>(random.Next() & 0xff);
            }
            (void)Play(strBytes, enFormat);
        }
    }
}

TEST_F(DemuxerDamaged, RandomBytesGiveNoFrames)
{
    for (const QN_FILE_FMT_E enFormat : FORMATS)
    {
        for (const size_t u32Len : {1u, 7u, 8u, 100u, 188u, 4096u, 60000u})
        {
            RANDOM_BYTES random(static_cast<uint32_t>(u32Len));
            const size_t u32Frames = Play(random.Bytes(u32Len), enFormat);
            // Raw AAC begins a frame at every two bytes that look like a header.
            EXPECT_TRUE(u32Frames == 0 || enFormat == QN_FILE_FMT_E_AAC) << enFormat << " " << u32Len;
        }
    }
}

TEST_F(DemuxerDamaged, AHeaderBeforeRandomBytesDoesNoHarm)
{
    for (const QN_FILE_FMT_E enFormat : FORMATS)
    {
        const std::string strWhole = Whole(enFormat, true);
        for (const size_t u32Kept : {40u, 400u, 1200u})
        {
            RANDOM_BYTES random(static_cast<uint32_t>(u32Kept));
            (void)Play(strWhole.substr(0, u32Kept) + random.Bytes(20000), enFormat);
        }
    }
}

TEST_F(DemuxerDamaged, AnEmptyFileGivesNoFrames)
{
    for (const QN_FILE_FMT_E enFormat : FORMATS)
    {
        EXPECT_EQ(0u, Play("", enFormat));
    }
}

TEST_F(DemuxerDamaged, TextGivesNoFrames)
{
    std::string strText;
    for (int32_t i = 0; i < 2000; ++i)
    {
        strText += "line " + std::to_string(i) + " of a file that somebody else put here\n";
    }
    for (const QN_FILE_FMT_E enFormat : FORMATS)
    {
        EXPECT_EQ(0u, Play(strText, enFormat)) << enFormat;
    }
}

TEST_F(DemuxerDamaged, ZerosGiveNoFrames)
{
    for (const QN_FILE_FMT_E enFormat : FORMATS)
    {
        EXPECT_EQ(0u, Play(std::string(50000, '\0'), enFormat)) << enFormat;
    }
}

TEST_F(DemuxerDamaged, ADirectoryGivesNoFrames)
{
    for (const QN_FILE_FMT_E enFormat : FORMATS)
    {
        m_pReader = FFMUXER_ReadOpen(nullptr, m_dir.strPath.c_str(), enFormat);
        if (m_pReader != nullptr)
        {
            EXPECT_EQ(0u, PlayOpen());
            Close();
        }
    }
}

TEST_F(DemuxerDamaged, AFileOfOneContainerUnderTheNameOfAnotherDoesNoHarm)
{
    for (const QN_FILE_FMT_E enWritten : FORMATS)
    {
        const std::string strWhole = Whole(enWritten, false);
        for (const QN_FILE_FMT_E enRead : FORMATS)
        {
            (void)Play(strWhole, enRead); // MP4 and MOV are one demuxer, the others refuse or find nothing
        }
    }
}
