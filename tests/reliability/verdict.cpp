#include "verdict.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>

extern "C"
{
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

#include "libquarrin.h"

using namespace libquarrin;

static uint32_t Missing(uint32_t u32Given, uint32_t u32Found)
{
    return u32Given > u32Found ? u32Given - u32Found : 0; // the frame of a call that did not come back may be there
}

uint32_t VERDICT_FILE_S::LostVideo() const
{
    return Missing(u32GivenVideo, u32FoundVideo);
}

uint32_t VERDICT_FILE_S::LostAudio() const
{
    return Missing(u32GivenAudio, u32FoundAudio);
}

static void FindNote(VERDICT_FILE_S &stFile, int64_t s64Start, const RECORDER_LOG_S &stLog)
{
    for (uint32_t i = 0; i < stLog.u32Files; i++)
    {
        const RECORDER_FILE_S &stNote = stLog.astFiles[i];
        if (stNote.s64Start == s64Start)
        {
            stFile.bNoted = true;
            stFile.u32No = i;
            stFile.u32GivenVideo = stNote.u32Video;
            stFile.u32GivenAudio = stNote.u32Audio;
        }
    }
}

static bool IsStartCode(const uint8_t *pu8Data, size_t uLeft)
{
    return uLeft >= 3 && pu8Data[0] == 0 && pu8Data[1] == 0 && pu8Data[2] == 1;
}

static void AddSlice(const uint8_t *pu8Nal, size_t uBytes, std::vector<uint8_t> &vecSlices)
{
    constexpr uint8_t TYPE = 0x1f;
    constexpr uint8_t SLICE = 1;
    constexpr uint8_t IDR_SLICE = 5;
    while (uBytes > 0 && pu8Nal[uBytes - 1] == 0)
    {
        uBytes--; // of the next start code
    }
    if (uBytes > 0 && ((pu8Nal[0] & TYPE) == SLICE || (pu8Nal[0] & TYPE) == IDR_SLICE))
    {
        vecSlices.insert(vecSlices.end(), pu8Nal, pu8Nal + uBytes);
    }
}

// The slices of a picture, whose other parts the containers add and leave out as they like. By start codes, of which
// the first has four bytes, or with the four-byte lengths of Matroska and MP4, of which none is 1.
static std::vector<uint8_t> Slices(const uint8_t *pu8Data, size_t uBytes)
{
    constexpr size_t LENGTH = 4;
    std::vector<uint8_t> vecSlices;
    size_t uAt = 0;
    if (uBytes > LENGTH && pu8Data[0] == 0 && IsStartCode(pu8Data + 1, uBytes - 1))
    {
        size_t uNal = uBytes;
        for (uAt = 0; uAt < uBytes; uAt++)
        {
            if (IsStartCode(pu8Data + uAt, uBytes - uAt))
            {
                AddSlice(pu8Data + uNal, std::max(uAt, uNal) - uNal, vecSlices);
                uNal = uAt + 3;
            }
        }
        AddSlice(pu8Data + uNal, uBytes - uNal, vecSlices);
        return vecSlices;
    }
    while (uAt + LENGTH < uBytes)
    {
        const uint8_t *pu8Length = pu8Data + uAt;
        const size_t uNal = static_cast<size_t>(pu8Length[0]) << 24 | static_cast<size_t>(pu8Length[1]) << 16 |
                            static_cast<size_t>(pu8Length[2]) << 8 | pu8Length[3];
        uAt += LENGTH;
        if (uNal > uBytes - uAt)
        {
            return {}; // damaged
        }
        AddSlice(pu8Data + uAt, uNal, vecSlices);
        uAt += uNal;
    }
    return vecSlices;
}

// An audio frame stands in the file with its ADTS header or without.
static bool IsSame(const AVPacket *pPacket, bool bVideo, uint32_t u32Frame)
{
    const std::vector<uint8_t> &vecGiven = RECORDER_Frame(bVideo, u32Frame);
    const size_t uBytes = static_cast<size_t>(pPacket->size);
    if (bVideo)
    {
        const std::vector<uint8_t> vecSlices = Slices(pPacket->data, uBytes);
        return !vecSlices.empty() && vecSlices == Slices(vecGiven.data(), vecGiven.size());
    }
    return uBytes > 0 && uBytes <= vecGiven.size() &&
           std::equal(vecGiven.end() - pPacket->size, vecGiven.end(), pPacket->data);
}

static void CountPacket(const AVPacket *pPacket, bool bVideo, const RECORDER_LOG_S &stLog, VERDICT_FILE_S &stFile)
{
    uint32_t &u32Found = bVideo ? stFile.u32FoundVideo : stFile.u32FoundAudio;
    uint32_t &u32Same = bVideo ? stFile.u32SameVideo : stFile.u32SameAudio;
    if (stFile.bNoted && u32Same == u32Found)
    {
        const RECORDER_FILE_S &stNote = stLog.astFiles[stFile.u32No];
        u32Same += IsSame(pPacket, bVideo, (bVideo ? stNote.u32First : stNote.u32FirstAudio) + u32Found) ? 1 : 0;
    }
    u32Found += 1;
}

// Every frame that stands in the file. Edit lists are left out of account: the last audio frame of an MP4 or MOV has no
// duration, so that they may leave it out, though it is there.
static void CountPackets(VERDICT_FILE_S &stFile, const RECORDER_LOG_S &stLog)
{
    AVFormatContext *pContext = nullptr;
    AVDictionary *pOptions = nullptr;
    av_dict_set(&pOptions, "ignore_editlist", "1", 0);
    stFile.bOpened = avformat_open_input(&pContext, stFile.strPath.c_str(), nullptr, &pOptions) == 0;
    av_dict_free(&pOptions);
    if (!stFile.bOpened)
    {
        return;
    }
    (void)avformat_find_stream_info(pContext, nullptr); // what it does not find shows in the counts
    AVPacket *pPacket = av_packet_alloc();
    while (av_read_frame(pContext, pPacket) == 0)
    {
        const bool bVideo = pContext->streams[pPacket->stream_index]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
        CountPacket(pPacket, bVideo, stLog, stFile);
        av_packet_unref(pPacket);
    }
    av_packet_free(&pPacket);
    avformat_close_input(&pContext);
}

VERDICT_FILE_S VERDICT_LookAt(const tagQN_FILE_INFO_S &stInfo, const RECORDER_LOG_S &stLog)
{
    VERDICT_FILE_S stFile;
    stFile.strPath = stInfo.strPath;
    stFile.bFinal = stInfo.strName.find(".To.unknown") == std::string::npos;
    stFile.s64Bytes = static_cast<int64_t>(stInfo.u64Size);
    tm stStart = {};
    tm stEnd = {};
    std::string strExt;
    QN_STORAGE_GetFilenameInfo(stInfo.strName.c_str(), stStart, stEnd, strExt);
    FindNote(stFile, timegm(&stStart), stLog); // names are UTC
    CountPackets(stFile, stLog);
    return stFile;
}

std::vector<VERDICT_FILE_S> VERDICT_Look(const std::string &strFolder, const RECORDER_LOG_S &stLog)
{
    std::vector<tagQN_FILE_INFO_S> vecInfos;
    QN_STORAGE_ScanFolder(strFolder.c_str(), vecInfos);
    std::vector<VERDICT_FILE_S> vecFiles;
    for (const tagQN_FILE_INFO_S &stInfo : vecInfos)
    {
        vecFiles.push_back(VERDICT_LookAt(stInfo, stLog));
    }
    return vecFiles;
}

uint32_t VERDICT_BytesBeforeLastGroup(const VERDICT_FILE_S &stFile, const RECORDER_LOG_S &stLog)
{
    const uint32_t u32First = stLog.astFiles[stFile.u32No].u32First;
    const uint32_t u32End = u32First + stFile.u32GivenVideo;
    const uint32_t u32LastGroup = u32End == 0 ? 0 : (u32End - 1) / RECORDER_GOP * RECORDER_GOP;
    uint32_t u32Bytes = 0;
    for (uint32_t i = u32First + stFile.u32FoundVideo; i < u32LastGroup; i++)
    {
        u32Bytes += RECORDER_Bytes(i);
    }
    return u32Bytes;
}

std::string VERDICT_Missing(const std::vector<VERDICT_FILE_S> &vecFiles, const RECORDER_LOG_S &stLog)
{
    std::multiset<uint32_t> setNumbers;
    for (const VERDICT_FILE_S &stFile : vecFiles)
    {
        if (stFile.bNoted)
        {
            setNumbers.insert(stFile.u32No);
        }
    }
    for (uint32_t i = 0; i < stLog.u32Files; i++)
    {
        if (setNumbers.count(i) != 1)
        {
            return "file number " + std::to_string(i) + " is there " + std::to_string(setNumbers.count(i)) + " times";
        }
    }
    return "";
}

void FIGURE_S::Add(int64_t s64Value)
{
    s64Most = std::max(s64Most, s64Value);
    s64Sum += s64Value;
    s64Count += 1;
}

void FIGURE_S::Add(const FIGURE_S &stOther)
{
    s64Most = std::max(s64Most, stOther.s64Most);
    s64Sum += stOther.s64Sum;
    s64Count += stOther.s64Count;
}

std::string FIGURE_S::Text() const
{
    char acText[96];
    snprintf(acText, sizeof(acText), "at most %lld, on average %.1f, of %lld", static_cast<long long>(s64Most),
             s64Count == 0 ? 0.0 : static_cast<double>(s64Sum) / static_cast<double>(s64Count),
             static_cast<long long>(s64Count));
    return acText;
}

void FIGURES_Say(const char *pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    fputs("[  figures ] ", stderr);
    vfprintf(stderr, pszFormat, args);
    fputs("\n", stderr);
    va_end(args);
}

int64_t NUMBER(const char *pszName, int64_t s64Default)
{
    const char *pszValue = getenv(pszName);
    return pszValue == nullptr ? s64Default : strtoll(pszValue, nullptr, 10);
}

int32_t POINTS(int32_t s32Default)
{
    return static_cast<int32_t>(NUMBER("QUARRIN_POINTS", s32Default));
}

uint32_t SEED()
{
    static const uint32_t s_u32Seed = static_cast<uint32_t>(NUMBER("QUARRIN_SEED", std::random_device()()));
    static const bool s_bSaid = (FIGURES_Say("QUARRIN_SEED=%u", s_u32Seed), true);
    (void)s_bSaid; // said once
    return s_u32Seed;
}
