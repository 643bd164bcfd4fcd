// Parameter sets that speak of huge pictures, and transport streams whose streams come late: an open is quick, and
// takes little memory.

#include "greedy_files.h"

#include <algorithm>

extern "C"
{
#include <libavcodec/codec_id.h>
#include <libavutil/crc.h>
}

#include "support/h265_sets.h"

using namespace libquarrin;

namespace
{

constexpr int32_t FRAMES = 40;

/// Bits, most significant first.
struct BITS_S
{
    std::vector<bool> vecBits;

    void Put(uint32_t u32Value, uint32_t u32Bits)
    {
        for (uint32_t i = u32Bits; i > 0; --i)
        {
            vecBits.push_back((u32Value >> (i - 1) & 1) != 0);
        }
    }

    void PutGolomb(uint32_t u32Value)
    {
        uint32_t u32Bits = 0;
        while ((u32Value + 1) >> (u32Bits + 1) != 0)
        {
            ++u32Bits;
        }
        Put(0, u32Bits);
        Put(u32Value + 1, u32Bits + 1);
    }

    std::vector<uint8_t> Bytes() const
    {
        std::vector<uint8_t> vecBytes((vecBits.size() + 7) / 8);
        for (size_t i = 0; i < vecBits.size(); ++i)
        {
            vecBytes[i / 8] = static_cast<uint8_t>(vecBytes[i / 8] | (vecBits[i] ? 0x80 >> i % 8 : 0));
        }
        return vecBytes;
    }
};

// A set of H.264 (ITU-T H.264, 7.3.2.1) that keeps sixteen pictures.
std::vector<uint8_t> H264Sps(uint32_t u32Width, uint32_t u32Height)
{
    BITS_S st;
    st.Put(0x67, 8);
    st.Put(66, 8); // baseline
    st.Put(0, 8);
    st.Put(62, 8);
    st.PutGolomb(0); // id
    st.PutGolomb(0); // bits of the frame number, less four
    st.PutGolomb(2); // order as decoded
    st.PutGolomb(16);
    st.Put(0, 1);
    st.PutGolomb(u32Width / 16 - 1);
    st.PutGolomb(u32Height / 16 - 1);
    st.Put(0xc, 4); // frames alone, no cropping
    st.Put(1, 1);
    return st.Bytes();
}

// The first NAL unit of the frame, its SPS, gives way to another one.
TEST_FRAME_S WithH264Sps(const TEST_FRAME_S &stFrame, const std::vector<uint8_t> &vecSps)
{
    TEST_FRAME_S stNew = stFrame;
    const std::vector<uint8_t> vecStart = {0, 0, 0, 1};
    const auto next = std::search(stNew.vecData.begin() + 4, stNew.vecData.end(), vecStart.begin(), vecStart.end());
    stNew.vecData.erase(stNew.vecData.begin() + 4, next);
    stNew.vecData.insert(stNew.vecData.begin() + 4, vecSps.begin(), vecSps.end());
    return stNew;
}

SOURCE_S LargeH264(uint32_t u32Width, uint32_t u32Height)
{
    SOURCE_S st = SOURCE_H264(25, 1, FRAMES);
    for (TEST_FRAME_S &stFrame : st.vecFrames)
    {
        stFrame = WithH264Sps(stFrame, H264Sps(u32Width, u32Height));
    }
    const std::vector<uint8_t> &vecFirst = st.vecFrames[0].vecData;
    st.vecExtradata.assign(vecFirst.begin(), vecFirst.begin() + 40); // more than the sets: the rest is left alone
    return st;
}

SOURCE_S LargeH265(uint32_t u32Size)
{
    SOURCE_S st = SOURCE_H265(25, 1, FRAMES);
    H265_SPS_S stSps;
    stSps.u32Size = u32Size;
    for (TEST_FRAME_S &stFrame : st.vecFrames)
    {
        stFrame = H265_WithSps(stFrame, H265_MakeSps(stSps));
    }
    return st;
}

class GreedyPictures : public GREEDY_TEST
{
protected:
    void ExpectModestEverywhere(const SOURCE_S &stSource, const std::string &strWhat)
    {
        for (const CONTAINER_S &stContainer : TEST_CONTAINERS)
        {
            if (stContainer.enFormat != QN_FILE_FMT_E_AAC && TEST_WriteMedia(Path(), stContainer.pszMuxer, {stSource}))
            {
                ExpectModestFile(stContainer.enFormat, strWhat + " in " + stContainer.pszMuxer);
            }
        }
    }
};

// ---- transport streams (ISO/IEC 13818-1), packet by packet

std::string Packet(uint32_t u32Pid, const std::string &strPayload, bool bBegins = true)
{
    const size_t filler = 184 - std::min<size_t>(strPayload.size(), 184);
    std::string str = Num(0x47, 1) + Num((bBegins ? 0x4000u : 0u) | u32Pid, 2) + Num(filler > 0 ? 0x30 : 0x10, 1);
    if (filler > 0)
    {
        str += Num(filler - 1, 1) + (filler > 1 ? Num(0, 1) : "") + std::string(filler > 2 ? filler - 2 : 0, '\xff');
    }
    return str + strPayload.substr(0, 184);
}

// A table's section, in a packet of its own.
std::string Section(uint32_t u32Pid, uint32_t u32Table, uint32_t u32Id, uint32_t u32Version, const std::string &strBody)
{
    std::string str = Num(u32Table, 1) + Num(0xb000 | (strBody.size() + 9), 2) + Num(u32Id, 2) +
                      Num(0xc1 | u32Version << 1, 1) + Num(0, 2) + strBody;
    const uint32_t u32Crc =
        av_crc(av_crc_get_table(AV_CRC_32_IEEE), UINT32_MAX, reinterpret_cast<const uint8_t *>(str.data()), str.size());
    str += Num(u32Crc & 0xff, 1) + Num(u32Crc >> 8 & 0xff, 1) + Num(u32Crc >> 16 & 0xff, 1) + Num(u32Crc >> 24, 1);
    std::string strPacket = Num(0x47, 1) + Num(0x4000 | u32Pid, 2) + Num(0x10, 1) + Num(0, 1) + str;
    strPacket.resize(188, '\xff');
    return strPacket;
}

std::string Pat(const std::vector<uint32_t> &vecPmts)
{
    std::string strBody;
    for (size_t i = 0; i < vecPmts.size(); ++i)
    {
        strBody += Num(i + 1, 2) + Num(0xe000 | vecPmts[i], 2);
    }
    return Section(0, 0, 1, 0, strBody);
}

// Streams of H.264 (0x1b) or H.265 (0x24).
std::string Pmt(uint32_t u32Pid, uint32_t u32Program, uint32_t u32Version, const std::vector<uint32_t> &vecStreams,
                uint32_t u32Kind = 0x1b)
{
    std::string strBody = Num(0xffff, 2) + Num(0xf000, 2);
    for (const uint32_t u32Stream : vecStreams)
    {
        strBody += Num(u32Kind, 1) + Num(0xe000 | u32Stream, 2) + Num(0xf000, 2);
    }
    return Section(u32Pid, 2, u32Program, u32Version, strBody);
}

std::string TimeStamp(uint64_t u64Pts)
{
    return Num(0x21 | (u64Pts >> 30 & 7) << 1, 1) + Num((u64Pts >> 15 & 0x7fff) << 1 | 1, 2) +
           Num((u64Pts & 0x7fff) << 1 | 1, 2);
}

// A frame of a video stream, in as many packets as it takes.
std::string Pes(uint32_t u32Pid, const std::vector<uint8_t> &vecFrame, uint64_t u64Pts)
{
    const std::string strPes = Num(0x1e0, 4) + Num(0, 2) + Num(0x8080, 2) + Num(5, 1) + TimeStamp(u64Pts) +
                               std::string(vecFrame.begin(), vecFrame.end());
    std::string str;
    for (size_t at = 0; at < strPes.size(); at += 184)
    {
        str += Packet(u32Pid, strPes.substr(at, 184), at == 0);
    }
    return str;
}

std::string Frames(uint32_t u32Pid, const SOURCE_S &stSource, uint64_t u64First)
{
    std::string str;
    for (size_t i = 0; i < stSource.vecFrames.size(); ++i)
    {
        str += Pes(u32Pid, stSource.vecFrames[i].vecData, u64First + i * 3600);
    }
    return str;
}

const std::string NOTHING = Repeat(Packet(0x1fff, std::string(184, 'x')), 2700); // half a megabyte

} // namespace

TEST_F(GreedyPictures, OfH264InEveryContainer)
{
    ExpectModestEverywhere(SOURCE_H264(25, 1, FRAMES), "64 by 64");
    ExpectModestEverywhere(LargeH264(8192, 4320), "8192 by 4320");
    ExpectModestEverywhere(LargeH264(16384, 16384), "16384 by 16384");
    ExpectModestEverywhere(LargeH264(16, 1048576), "16 by 1048576");
}

TEST_F(GreedyPictures, OfH265InEveryContainer)
{
    ExpectModestEverywhere(LargeH265(64), "64 by 64");
    ExpectModestEverywhere(LargeH265(5760), "5760 by 5760");
    ExpectModestEverywhere(LargeH265(16320), "16320 by 16320");
    ExpectModestEverywhere(LargeH265(16384), "16384 by 16384");
}

TEST_F(GreedyPictures, OfStreamsThatComeLate)
{
    const SOURCE_S stSmall = SOURCE_H264(25, 1, FRAMES);
    const SOURCE_S stLarge = LargeH264(16000, 16000);
    ExpectModest(NOTHING + Frames(0x200, stLarge, 3600), QN_FILE_FMT_E_TS, "without tables", true);
    ExpectModest(Pat({0x100}) + Pmt(0x100, 1, 0, {0x200}) + Frames(0x200, stSmall, 3600) + NOTHING +
                     Pmt(0x100, 1, 1, {0x200, 0x201}) + Frames(0x201, stLarge, 3600 * FRAMES),
                 QN_FILE_FMT_E_TS, "a table that changes", true);
    ExpectModest(Pat({0x100}) + Pmt(0x100, 1, 0, {0x200}) + Frames(0x200, stSmall, 3600) + NOTHING +
                     Frames(0x201, stLarge, 3600 * FRAMES),
                 QN_FILE_FMT_E_TS, "a stream in no table", true);
    ExpectModest(NOTHING + Pat({0x100}) + Pmt(0x100, 1, 0, {0x200}, 0x24) + Frames(0x200, LargeH265(16000), 3600),
                 QN_FILE_FMT_E_TS, "of H.265", true);
}

TEST_F(GreedyPictures, OfStreamsThatComeLateAreKnown)
{
    const SOURCE_S stSmall = SOURCE_H264(25, 5, FRAMES);
    TEST_Touch(Path(), NOTHING + Frames(0x200, stSmall, 3600));
    Open(QN_FILE_FMT_E_TS);
    tagQN_METADATA_S stMetadata = {};
    ASSERT_EQ(0, FFMUXER_ReadMetadata(m_pReader, &stMetadata));
    EXPECT_EQ(64u, stMetadata.u32Width);
    EXPECT_EQ(64u, stMetadata.u32Height);
    EXPECT_EQ(25u, stMetadata.u32FrameRate);
    const READ_S stRead = TEST_ReadAll(m_pReader);
    EXPECT_EQ(stSmall.vecFrames.size(), stRead.vecFrames.size());
}

TEST_F(GreedyPictures, OfManyPrograms)
{
    std::vector<uint32_t> vecPmts;
    std::string strPmts;
    std::string strFrames;
    const SOURCE_S stLarge = LargeH264(8192, 4320);
    for (uint32_t i = 0; i < 40; ++i)
    {
        vecPmts.push_back(0x100 + i);
        std::vector<uint32_t> vecStreams;
        for (uint32_t j = 0; j < 30; ++j)
        {
            vecStreams.push_back(0x400 + 30 * i + j);
        }
        strPmts += Pmt(0x100 + i, i + 1, 0, vecStreams);
        strFrames += i < 8 ? Frames(0x400 + 30 * i, stLarge, 3600) : "";
    }
    ExpectModest(Pat(vecPmts) + Repeat(strPmts, 2) + strFrames, QN_FILE_FMT_E_TS, "forty programs", true);
    std::string strVersions;
    for (uint32_t i = 0; i < 5000; ++i)
    {
        strVersions += Pmt(0x100, 1, i % 32, {0x200 + i});
    }
    ExpectModest(Pat({0x100}) + strVersions, QN_FILE_FMT_E_TS, "a table that changes all the time", true);
}
