// The players: replays of what the cameras have recorded.

#include "world.h"

#include "chance.h"
#include "slots.h"
#include "support/wait.h"
#include "watch.h"

using namespace libquarrin;

using PLAYER = GUARDED_S<tagQN_REPLAY_HANDLER_S>;

static constexpr int32_t MOST_FRAMES = 60;

static tagQN_REPLAY_HANDLER_S *Open(WORLD_S &stWorld)
{
    std::vector<tagQN_FILE_INFO_S> vecFiles;
    {
        const WATCHED watched("QN_ReplayListFile");
        (void)QN_ReplayListFile(stWorld.card.pHandle, QN_VOLUME_ID_E_0, &vecFiles);
    }
    if (vecFiles.empty())
    {
        return nullptr;
    }
    const tagQN_FILE_INFO_S &stInfo = vecFiles[CHANCE_Below(static_cast<uint32_t>(vecFiles.size()))];
    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
    const WATCHED watched("QN_ReplayOpen");
    switch (CHANCE_Below(3))
    {
    case 0:
        (void)QN_ReplayOpen(stWorld.card.pHandle, stInfo, tagQN_REPLAY_PARAM_S(), pReplay);
        break;
    case 1:
        (void)QN_ReplayOpenByFileName(stWorld.card.pHandle, stInfo.strName, tagQN_REPLAY_PARAM_S(), pReplay);
        break;
    default:
        (void)QN_ReplayOpenByFilePath(stWorld.card.pHandle, stInfo.strPath, tagQN_REPLAY_PARAM_S(), pReplay);
        break;
    }
    return pReplay;
}

// Puts the delays between the replay and its reader. A pull may have closed it meanwhile.
static void Wrap(tagQN_REPLAY_HANDLER_S *pReplay)
{
    pthread_mutex_lock(&pReplay->mutexReplay);
    if (pReplay->pReader != nullptr)
    {
        pReplay->pstMediaApi = &g_stStressApi;
        SLOTS_NoteReader();
    }
    pthread_mutex_unlock(&pReplay->mutexReplay);
}

static void Make(WORLD_S &stWorld, PLAYER &player)
{
    stWorld.s32Busy += 1;
    tagQN_REPLAY_HANDLER_S *pReplay = stWorld.bQuiet ? nullptr : Open(stWorld);
    if (pReplay == nullptr)
    {
        stWorld.s32Busy -= 1;
        return;
    }
    Wrap(pReplay);
    player.pHandler.store(pReplay, std::memory_order_release);
}

static void End(WORLD_S &stWorld, PLAYER &player)
{
    tagQN_REPLAY_HANDLER_S *pReplay = GUARDED_BeginEnd(player, CHANCE_In100(70));
    if (pReplay != nullptr)
    {
        const WATCHED watched("QN_ReplayClose");
        if (QN_ReplayClose(pReplay) != 0 || pReplay != nullptr)
        {
            WATCH_Violation("a replay could not be closed");
        }
        stWorld.s32Busy -= 1;
    }
    GUARDED_Ended(player);
}

// Reads every byte of a frame: it stays until it is freed or the replay closed, also when the card goes meanwhile.
static uint32_t SumOf(const uint8_t *pu8Data, uint32_t u32Size)
{
    uint32_t u32Sum = 0;
    for (uint32_t i = 0; i < u32Size; ++i)
    {
        u32Sum += pu8Data[i];
    }
    return u32Sum;
}

static uint32_t TakeFrame(PLAYER &player, uint8_t *&pu8Data, uint32_t &u32Size)
{
    uint64_t u64Pts = 0;
    bool bKey = false;
    bool bVideo = false;
    const ENTERED<tagQN_REPLAY_HANDLER_S> call(player);
    const WATCHED watched("QN_ReplayReadFrame");
    return QN_ReplayReadFrame(call.Handler(), &pu8Data, &u32Size, &u64Pts, &bKey, &bVideo);
}

static bool ReadOne(PLAYER &player, bool bAlone)
{
    uint8_t *pu8Data = nullptr;
    uint32_t u32Size = 0;
    if (TakeFrame(player, pu8Data, u32Size) != 0)
    {
        return false;
    }
    WATCH_Count(WATCH_E_REPLAYED);
    if (bAlone) // nobody else frees it, seeks or closes
    {
        const uint32_t u32Sum = SumOf(pu8Data, u32Size);
        CHANCE_Delay(40);
        if (SumOf(pu8Data, u32Size) != u32Sum)
        {
            WATCH_Violation("a frame changed while it was out");
        }
    }
    const ENTERED<tagQN_REPLAY_HANDLER_S> call(player);
    const WATCHED watched("QN_ReplayFreeFrame");
    (void)QN_ReplayFreeFrame(call.Handler(), pu8Data);
    return true;
}

static void SeekOrAsk(PLAYER &player)
{
    const ENTERED<tagQN_REPLAY_HANDLER_S> call(player);
    if (CHANCE_In100(50))
    {
        const WATCHED watched("QN_ReplaySeekTime");
        (void)QN_ReplaySeekTime(call.Handler(), CHANCE_Below(3));
        return;
    }
    tagQN_METADATA_S stMetadata = {};
    const WATCHED watched("QN_ReplayReadMetadata");
    (void)QN_ReplayReadMetadata(call.Handler(), &stMetadata);
}

static void Read(WORLD_S &stWorld, PLAYER &player, bool bAlone)
{
    const int32_t s32Frames = static_cast<int32_t>(CHANCE_Below(MOST_FRAMES));
    for (int32_t i = 0; i < s32Frames && !stWorld.bStop && !stWorld.bQuiet && ReadOne(player, bAlone); ++i)
    {
        if (CHANCE_In100(10))
        {
            SeekOrAsk(player);
        }
    }
}

// The first player's frames are its own; on the second, two threads read.
void PLAYER_Play(WORLD_S &stWorld, size_t player)
{
    PLAYER &mine = stWorld.aPlayers[player];
    while (!stWorld.bStop)
    {
        if (mine.pHandler == nullptr) // this thread alone sets it
        {
            Make(stWorld, mine);
        }
        Read(stWorld, mine, player == 0);
        if (!CHANCE_In100(10) || stWorld.bQuiet)
        {
            End(stWorld, mine);
        }
        TEST_SleepMs(static_cast<int32_t>(CHANCE_Below(30)));
    }
}

void PLAYER_Interfere(WORLD_S &stWorld, size_t player)
{
    while (!stWorld.bStop)
    {
        Read(stWorld, stWorld.aPlayers[player], false);
        TEST_SleepMs(static_cast<int32_t>(CHANCE_Below(20)));
    }
}

void PLAYER_CloseAll(WORLD_S &stWorld)
{
    for (PLAYER &player : stWorld.aPlayers)
    {
        End(stWorld, player);
    }
}
