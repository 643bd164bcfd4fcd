// Recording for replay.

#include "replay_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>

#include "annexb.h"

tagTOOL_REPLAY_S::~tagTOOL_REPLAY_S()
{
    avformat_close_input(&pHeaders);
    if (pReplay != nullptr)
    {
        (void)libquarrin::QN_ReplayClose(pReplay); // refuses a null replay only
    }
}

static bool CheckFile(const tagTOOL_REPLAY_S &stReplay, std::string &strError)
{
    struct stat stStat = {};
    if (stat(stReplay.strPath.c_str(), &stStat) != 0)
    {
        strError = "no file " + stReplay.strPath + ": " + strerror(errno);
        return false;
    }
    const std::string strName = stReplay.strPath.substr(stReplay.strPath.rfind('/') + 1);
    tm stStart = {};
    tm stEnd = {};
    std::string strExt;
    const bool bNamed = libquarrin::QN_STORAGE_GetFilenameInfo(strName.c_str(), stStart, stEnd, strExt) == 0;
    if (!S_ISREG(stStat.st_mode) || !bNamed)
    {
        strError = stReplay.strPath + " is no recording: its name does not begin with a time";
        return false;
    }
    return true;
}

/// What the library picks: the first H.264 or H.265 stream. The frames of all others come without saying whose they
/// are.
static void FindStreams(tagTOOL_REPLAY_S &stReplay)
{
    const AVFormatContext *pHeaders = stReplay.pHeaders;
    uint32_t u32Others = 0;
    for (uint32_t u = 0; u < pHeaders->nb_streams; u++)
    {
        const AVCodecID enCodec = pHeaders->streams[u]->codecpar->codec_id;
        if (stReplay.s32Video < 0 && (enCodec == AV_CODEC_ID_H264 || enCodec == AV_CODEC_ID_HEVC))
        {
            stReplay.s32Video = static_cast<int32_t>(u);
            continue;
        }
        u32Others++;
        stReplay.s32Other = u32Others == 1 ? static_cast<int32_t>(u) : -1;
    }
}

static bool ReadHeaders(tagTOOL_REPLAY_S &stReplay, std::string &strError)
{
    const std::string strExt = stReplay.strPath.substr(stReplay.strPath.rfind('.') + 1);
    const libquarrin::QN_FILE_FMT_E enFormat = libquarrin::QN_STORAGE_FileExt2FmtType(strExt.c_str());
    const AVInputFormat *pFormat = av_find_input_format(libquarrin::getMuxerByFmt(enFormat));
    const std::string strUrl = "file:" + stReplay.strPath; // a colon in the path names no protocol
    int s32Result = avformat_open_input(&stReplay.pHeaders, strUrl.c_str(), pFormat, nullptr);
    s32Result = s32Result < 0 ? s32Result : avformat_find_stream_info(stReplay.pHeaders, nullptr);
    if (s32Result < 0)
    {
        strError = "cannot read the headers of " + stReplay.strPath + ": " + TOOL_FF_Text(s32Result);
        return false;
    }
    FindStreams(stReplay);
    return true;
}

bool TOOL_REPLAY_Open(const std::string &strFile, const std::string &strStorage, tagTOOL_REPLAY_S &stReplay,
                      std::string &strError)
{
    stReplay.pStorage = TOOL_STORAGE_Open(strStorage, tagTOOL_QUOTA_S(), strError);
    if (!stReplay.pStorage)
    {
        return false;
    }
    const bool bBare = strFile.find('/') == std::string::npos;
    stReplay.strPath = bBare ? TOOL_STORAGE_Folder(stReplay.pStorage.get()) + "/" + strFile : strFile;
    if (!CheckFile(stReplay, strError))
    {
        return false;
    }
    const libquarrin::tagQN_REPLAY_PARAM_S stParam = {};
    const uint32_t u32Result =
        bBare ? libquarrin::QN_ReplayOpenByFileName(stReplay.pStorage.get(), strFile, stParam, stReplay.pReplay)
              : libquarrin::QN_ReplayOpenByFilePath(stReplay.pStorage.get(), strFile, stParam, stReplay.pReplay);
    if (u32Result != 0 || stReplay.pReplay == nullptr)
    {
        strError = "cannot play " + stReplay.strPath + ": its container is not known or it is damaged";
        return false;
    }
    return ReadHeaders(stReplay, strError);
}

bool TOOL_REPLAY_HasTime(const tagTOOL_REPLAY_S &stReplay, double dSeconds)
{
    const int64_t s64Duration = stReplay.pHeaders->duration;
    return s64Duration <= 0 || dSeconds <= static_cast<double>(s64Duration) / AV_TIME_BASE;
}

bool TOOL_REPLAY_Seek(tagTOOL_REPLAY_S &stReplay, uint32_t u32Seconds)
{
    // A transport stream's clock does not begin at 0; the library seeks by it, in whole seconds.
    const int64_t s64Start = stReplay.pHeaders->start_time;
    const uint64_t u64Start =
        s64Start == AV_NOPTS_VALUE || s64Start < 0 ? 0 : static_cast<uint64_t>(s64Start / AV_TIME_BASE);
    const uint32_t u32Result = libquarrin::QN_ReplaySeekTime(stReplay.pReplay, u64Start + u32Seconds);
    return static_cast<int32_t>(u32Result) == 0;
}

uint32_t TOOL_REPLAY_Read(tagTOOL_REPLAY_S &stReplay, tagTOOL_REPLAY_FRAME_S &stFrame)
{
    uint64_t u64Pts = 0;
    const uint32_t u32Result = libquarrin::QN_ReplayReadFrame(stReplay.pReplay, &stFrame.pu8Data, &stFrame.u32Len,
                                                              &u64Pts, &stFrame.bKey, &stFrame.bVideo);
    if (u32Result != 0)
    {
        return u32Result;
    }
    stFrame.s64Pts = static_cast<int64_t>(u64Pts);
    stFrame.s32Stream = stFrame.bVideo ? stReplay.s32Video : stReplay.s32Other;
    stFrame.stBase =
        stFrame.s32Stream < 0 ? AVRational{0, 1} : stReplay.pHeaders->streams[stFrame.s32Stream]->time_base;
    return 0;
}

std::vector<uint8_t> TOOL_REPLAY_AacConfig(tagTOOL_REPLAY_S &stReplay, int32_t s32Stream)
{
    std::vector<uint8_t> vecConfig;
    TOOL_PACKET pPacket(av_packet_alloc());
    while (pPacket && vecConfig.empty() && av_read_frame(stReplay.pHeaders, pPacket.get()) >= 0)
    {
        tagTOOL_ADTS_S stAdts;
        const bool bAdts = pPacket->stream_index == s32Stream &&
                           TOOL_ADTS_FromHeader(pPacket->data, static_cast<size_t>(pPacket->size), stAdts);
        if (bAdts)
        {
            const uint16_t u16Config = AAC_GET_AUDIO_SPECIFIC_CONFIG(pPacket->data);
            vecConfig = {static_cast<uint8_t>(u16Config & 0xff), static_cast<uint8_t>(u16Config >> 8)};
        }
        av_packet_unref(pPacket.get());
    }
    return vecConfig;
}

void TOOL_REPLAY_GiveBack(tagTOOL_REPLAY_S &stReplay, tagTOOL_REPLAY_FRAME_S &stFrame)
{
    (void)libquarrin::QN_ReplayFreeFrame(stReplay.pReplay, stFrame.pu8Data); // it is the frame that is out
    stFrame.pu8Data = nullptr;
}

bool TOOL_REPLAY_WouldOverwrite(const tagTOOL_REPLAY_S &stReplay, const std::string &strOutput)
{
    struct stat stFile = {};
    struct stat stOutput = {};
    struct stat stFolder = {};
    struct stat stOutputFolder = {};
    if (stat(strOutput.c_str(), &stOutput) != 0)
    {
        return false;
    }
    const size_t uSlash = strOutput.rfind('/');
    const std::string strFolder = uSlash == std::string::npos ? "." : strOutput.substr(0, uSlash + 1);
    const bool bSame = stat(stReplay.strPath.c_str(), &stFile) == 0 && stFile.st_dev == stOutput.st_dev &&
                       stFile.st_ino == stOutput.st_ino;
    return bSame || (stat(TOOL_STORAGE_Folder(stReplay.pStorage.get()).c_str(), &stFolder) == 0 &&
                     stat(strFolder.c_str(), &stOutputFolder) == 0 && stFolder.st_dev == stOutputFolder.st_dev &&
                     stFolder.st_ino == stOutputFolder.st_ino);
}
