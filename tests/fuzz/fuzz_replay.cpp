// Replay calls in random order, on files that open and on others, with the card pulled and put back in between. What
// each call answers is known beforehand.

#include "fuzz.h"

#include <filesystem>
#include <vector>

#include "clips.h"
#include "frame_out.h"

using namespace libquarrin;

namespace
{

struct FILE_S
{
    std::string strPath;
    bool bByPath; ///< opens by path and by record
    bool bByName; ///< opens by name
};

struct REPLAY_S
{
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    bool bReader = false;
    FRAME_OUT_S stFrame;
};

constexpr size_t REPLAYS = 4;

struct WORLD_S
{
    tagQN_HANDLER_S *pHandle = nullptr;
    std::vector<FILE_S> vecFiles;
    size_t au32Listed[2] = {};
    REPLAY_S astReplays[REPLAYS];
    bool bMounted = true;
};

std::string Stamp(size_t number)
{
    return "2024-03-01-08-15-" + std::to_string(10 + number) + ".To.2024-03-01-09-00-00";
}

// A clip of each container, and what no replay can come of.
WORLD_S MakeWorld()
{
    WORLD_S stWorld;
    stWorld.pHandle = FUZZ_Handle();
    const std::string strMount = stWorld.pHandle->pszMountPoint;
    const std::string strRec = strMount + "/rec/";
    std::filesystem::create_directories(strMount + "/none");
    const QN_FILE_FMT_E aenFormats[] = {QN_FILE_FMT_E_MKV, QN_FILE_FMT_E_TS, QN_FILE_FMT_E_MP4, QN_FILE_FMT_E_MOV};
    for (const QN_FILE_FMT_E enFormat : aenFormats)
    {
        const std::string strExt = QN_STORAGE_FmtType2FileExt(enFormat);
        stWorld.vecFiles.push_back({strRec + Stamp(stWorld.vecFiles.size()) + "." + strExt, true, true});
        FUZZ_WriteClip(stWorld.vecFiles.back().strPath, enFormat, QN_CODEC_H264, 9);
    }
    const std::string strClip = stWorld.vecFiles[1].strPath;
    stWorld.vecFiles.push_back({strMount + "/event/" + Stamp(20) + ".[door].ts", true, true});
    std::filesystem::copy_file(strClip, stWorld.vecFiles.back().strPath);
    stWorld.vecFiles.push_back({strMount + "/none/" + Stamp(21) + ".ts", true, false}); // of no volume
    std::filesystem::copy_file(strClip, stWorld.vecFiles.back().strPath);
    for (const std::string strExt : {"mkv", "mp4", "wav", "jpg", "xyz", "TS", ""})
    {
        const std::string strDot = strExt.empty() ? "" : ".";
        stWorld.vecFiles.push_back({strRec + Stamp(stWorld.vecFiles.size() + 20) + strDot + strExt, false, false});
        FUZZ_WriteFile(stWorld.vecFiles.back().strPath, "no media");
    }
    stWorld.au32Listed[0] = 4 + 7;
    stWorld.au32Listed[1] = 1;
    stWorld.vecFiles.push_back({strRec + "notes.ts", false, false});
    std::filesystem::copy_file(strClip, stWorld.vecFiles.back().strPath);
    stWorld.vecFiles.push_back({strRec + Stamp(49) + ".mkv", false, false}); // a folder
    std::filesystem::create_directories(stWorld.vecFiles.back().strPath);
    stWorld.vecFiles.push_back({strRec + Stamp(48) + ".mkv", false, false}); // not there
    return stWorld;
}

uint32_t OpenByRecord(tagQN_HANDLER_S *pHandle, const std::string &strPath, tagQN_REPLAY_HANDLER_S *&pReplay)
{
    tagQN_FILE_INFO_S stInfo;
    (void)QN_STORAGE_GetFileInfo(strPath.c_str(), &stInfo); // an empty record is as good as any that does not open
    return QN_ReplayOpen(pHandle, stInfo, tagQN_REPLAY_PARAM_S(), pReplay);
}

void Open(WORLD_S &stWorld, REPLAY_S &stReplay, uint32_t u32How, const FILE_S &stFile)
{
    if (stReplay.pReplay != nullptr)
    {
        return;
    }
    uint32_t u32Result = 0;
    bool bOpens = stFile.bByPath;
    switch (u32How % 4)
    {
    case 0:
        u32Result = QN_ReplayOpenByFilePath(stWorld.pHandle, stFile.strPath, tagQN_REPLAY_PARAM_S(), stReplay.pReplay);
        break;
    case 1:
        bOpens = stFile.bByName;
        u32Result = QN_ReplayOpenByFileName(stWorld.pHandle, stFile.strPath.substr(stFile.strPath.rfind('/') + 1),
                                            tagQN_REPLAY_PARAM_S(), stReplay.pReplay);
        break;
    case 2:
        // A folder has a record without data; a record that nobody filled does not open either.
        bOpens = stFile.bByPath;
        u32Result = OpenByRecord(stWorld.pHandle, stFile.strPath, stReplay.pReplay);
        break;
    default:
        FUZZ_Check(QN_ReplayOpenByFilePath(nullptr, stFile.strPath, tagQN_REPLAY_PARAM_S(), stReplay.pReplay) == 1,
                   "nothing opens without a handle");
        return;
    }
    const uint32_t u32Wanted = !stWorld.bMounted ? 3 : bOpens ? 0 : 7;
    FUZZ_Check(u32Result == u32Wanted, "an open answers what the state and the file say");
    FUZZ_Check((stReplay.pReplay != nullptr) == (u32Wanted == 0), "a replay comes of a success alone");
    stReplay.bReader = u32Wanted == 0;
    stReplay.stFrame = FRAME_OUT_S();
}

void Close(REPLAY_S &stReplay)
{
    const bool bOpen = stReplay.pReplay != nullptr;
    FUZZ_Check(QN_ReplayClose(stReplay.pReplay) == (bOpen ? 0 : 1), "a close answers whether there was a replay");
    FUZZ_Check(stReplay.pReplay == nullptr, "a closed replay is no more");
    stReplay = REPLAY_S();
}

// Without a replay, or without its reader, every call has one answer. False: call it for real.
bool IsRefused(const REPLAY_S &stReplay, uint32_t u32Result)
{
    if (stReplay.bReader)
    {
        return false;
    }
    FUZZ_Check(u32Result == (stReplay.pReplay == nullptr ? 1u : 8u), "a call without a reader is refused");
    return true;
}

void Get(REPLAY_S &stReplay)
{
    uint8_t *pu8Data = nullptr;
    uint32_t u32Size = 0;
    uint64_t u64Pts = 0;
    bool bKey = false;
    bool bVideo = false;
    const uint32_t u32Result = QN_ReplayReadFrame(stReplay.pReplay, &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo);
    if (!IsRefused(stReplay, u32Result))
    {
        stReplay.stFrame.Got(static_cast<int32_t>(u32Result), pu8Data, u32Size);
    }
}

void Release(REPLAY_S &stReplay, bool bRight)
{
    uint8_t u8Other = 0;
    uint8_t *pu8Given = bRight ? stReplay.stFrame.pu8Data : &u8Other;
    const uint32_t u32Result = QN_ReplayFreeFrame(stReplay.pReplay, pu8Given);
    if (!IsRefused(stReplay, u32Result))
    {
        stReplay.stFrame.Released(static_cast<int32_t>(u32Result), pu8Given);
    }
}

void Seek(REPLAY_S &stReplay, uint64_t u64Time)
{
    const uint32_t u32Result = QN_ReplaySeekTime(stReplay.pReplay, u64Time);
    if (!IsRefused(stReplay, u32Result))
    {
        stReplay.stFrame.bOut = false;
    }
}

void Metadata(REPLAY_S &stReplay)
{
    tagQN_METADATA_S stMetadata = {};
    const uint32_t u32Result = QN_ReplayReadMetadata(stReplay.pReplay, &stMetadata);
    if (!IsRefused(stReplay, u32Result))
    {
        FUZZ_Check(u32Result == 0 && stMetadata.u32Width == 64 && stMetadata.u32VideoCodec == 0,
                   "the clip is described");
    }
}

void List(WORLD_S &stWorld, int32_t s32Volume)
{
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    const uint32_t u32Result = QN_ReplayListFile(stWorld.pHandle, static_cast<QN_VOLUME_ID_E>(s32Volume), &vecFiles);
    const bool bEnabled = s32Volume == 0 || s32Volume == 1;
    FUZZ_Check(u32Result == (stWorld.bMounted && bEnabled ? 0u : 3u), "a list answers what state and volume say");
    FUZZ_Check(u32Result != 0 || vecFiles.size() == stWorld.au32Listed[s32Volume], "all files are listed");
}

void Plug(WORLD_S &stWorld, bool bIn)
{
    QN_EVENT_PushEvent(stWorld.pHandle, bIn ? QN_EVENT_E_HOTPLUG_IN : QN_EVENT_E_HOTPLUG_OUT, nullptr);
    while (stWorld.pHandle->u32EventCount > 0)
    {
        QN_EVENT_ProcessThread(stWorld.pHandle);
    }
    stWorld.bMounted = bIn;
    for (REPLAY_S &stReplay : stWorld.astReplays)
    {
        stReplay.bReader = stReplay.bReader && bIn;
        stReplay.stFrame.bOut = stReplay.stFrame.bOut && bIn;
    }
}

void Call(WORLD_S &stWorld, FUZZ_INPUT &input)
{
    const uint32_t u32Call = input.U8();
    REPLAY_S &stReplay = stWorld.astReplays[u32Call >> 6];
    switch (u32Call % 16)
    {
    case 0:
    case 1:
        Open(stWorld, stReplay, input.U8(), stWorld.vecFiles[input.U8() % stWorld.vecFiles.size()]);
        break;
    case 2:
        Close(stReplay);
        break;
    case 3:
        Release(stReplay, false);
        break;
    case 4:
        Seek(stReplay, input.U8());
        break;
    case 5:
        Seek(stReplay, static_cast<uint64_t>(input.S64()));
        break;
    case 6:
        Metadata(stReplay);
        break;
    case 7:
        List(stWorld, static_cast<int8_t>(input.U8()));
        break;
    case 8:
        Plug(stWorld, input.U8() % 4 != 0);
        break;
    case 9:
    case 10:
    case 11:
        Release(stReplay, true);
        break;
    default:
        Get(stReplay);
        break;
    }
}

void CheckList(const WORLD_S &stWorld)
{
    size_t open = 0;
    for (const REPLAY_S &stReplay : stWorld.astReplays)
    {
        open += stReplay.pReplay != nullptr ? 1 : 0;
    }
    FUZZ_Check(stWorld.pHandle->lstReplay.size() == open, "the handle's list holds the open replays");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pu8Data, size_t size)
{
    static WORLD_S stWorld = MakeWorld();
    FUZZ_INPUT input(pu8Data, size);
    for (int32_t i = 0; i < 64 && !input.IsEmpty(); ++i)
    {
        Call(stWorld, input);
        CheckList(stWorld);
    }
    for (REPLAY_S &stReplay : stWorld.astReplays)
    {
        Close(stReplay);
    }
    Plug(stWorld, true);
    CheckList(stWorld);
    return 0;
}
