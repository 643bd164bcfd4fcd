// One round of a world: the handle is made, the host's threads run, and in the end nothing may be left.

#include "world.h"

#include <sys/stat.h>

#include "chance.h"
#include "kernel.h"
#include "record/split_files.h"
#include "replay/frames_out.h"
#include "ring/handle_private.h"
#include "ring/ring.h"
#include "storage/card.h"
#include "support/process.h"
#include "support/wait.h"
#include "watch.h"

using namespace libquarrin;

static constexpr int32_t SETTLE_MS = 30000;

static void FillParam(WORLD_S &stWorld)
{
    tagQN_STORAGE_PARAM_S &stParam = stWorld.stParam;
    stParam.strDevice = stWorld.card.strDevice;
    stParam.s32PartitionNo = 1;
    stParam.pszMountPoint = stWorld.card.strMount;
    const char *const apszFolders[QN_VOLUME_COUNT] = {"rec", "photo", "event"};
    for (int32_t i = 0; i < QN_VOLUME_COUNT; ++i)
    {
        tagQN_VOLUME_PARAM_S &stVolume = stParam.astVolume[i];
        stVolume.bEnable = i < 2 || CHANCE_In100(50) ? 1 : 0;
        stVolume.pszFolder = apszFolders[i];
        stVolume.u32QuotaType = CHANCE_Below(2);
        stVolume.u32QuotaPercent = 90;
        stVolume.u32QuotaBytes = 100000 + CHANCE_Below(900000); // some files' worth
        stVolume.bAutoDelete = CHANCE_In100(60);
    }
}

static void Begin(WORLD_S &stWorld)
{
    FillParam(stWorld);
    stWorld.bStop = false;
    stWorld.bStopFrames = false;
    stWorld.bQuiet = false;
    if (CHANCE_In100(80) || !stWorld.card.IsMounted()) // otherwise as after a program that was killed
    {
        stWorld.card.CleanUp();
    }
    CHANCE_In100(60) ? stWorld.card.In() : stWorld.card.Out();
    const WATCHED watched("QN_Init");
    if (QN_Init(&stWorld.stParam, stWorld.card.pHandle) != 0)
    {
        WATCH_Violation("QN_Init failed");
    }
}

// A thread of the host with choices of its own.
static std::thread Start(const std::function<void()> &fnWork)
{
    return std::thread(
        [fnWork, u64Stream = static_cast<uint64_t>(CHANCE_Below(1000000))]
        {
            CHANCE_Thread(u64Stream);
            fnWork();
        });
}

static void Join(std::vector<std::thread> &vecThreads)
{
    for (std::thread &thread : vecThreads)
    {
        thread.join();
    }
    vecThreads.clear();
}

// The frames go on when this returns.
static void Work(WORLD_S &stWorld, int32_t s32Ms)
{
    std::vector<std::thread> vecThreads;
    vecThreads.push_back(Start([&] { STORAGE_Control(stWorld); }));
    vecThreads.push_back(Start([&] { STORAGE_Plug(stWorld); }));
    vecThreads.push_back(Start([&] { STORAGE_Look(stWorld); }));
    vecThreads.push_back(Start([&] { PLAYER_Play(stWorld, 0); }));
    vecThreads.push_back(Start([&] { PLAYER_Play(stWorld, 1); }));
    vecThreads.push_back(Start([&] { PLAYER_Interfere(stWorld, 1); }));
    for (size_t camera = 0; camera < WORLD_CAMERAS; ++camera)
    {
        vecThreads.push_back(Start([&, camera] { CAMERA_Control(stWorld, camera); }));
        stWorld.vecFrames.push_back(Start([&, camera] { CAMERA_Feed(stWorld, camera, true); }));
        stWorld.vecFrames.push_back(Start([&, camera] { CAMERA_Feed(stWorld, camera, false); }));
    }
    (void)TEST_WaitFor([] { return WATCH_Violations() > 0; }, s32Ms / TEST_SLOW);
    stWorld.bStop = true;
    Join(vecThreads);
}

static void EndFrames(WORLD_S &stWorld)
{
    stWorld.bStopFrames = true;
    Join(stWorld.vecFrames);
}

// What the library's own lists hold, in words; empty when there is nothing.
static std::string WhatIsLeft(WORLD_S &stWorld)
{
    tagQN_HANDLER_S *pHandle = stWorld.card.pHandle;
    tagQN_HANDLER_PRIVATE_S *pPrivate = pHandle->pstPrivate;
    std::string strLeft;
    const auto note = [&strLeft](bool bLeft, const char *pszWhat)
    {
        strLeft += bLeft ? std::string(" ") + pszWhat : "";
    };
    pthread_mutex_lock(&pHandle->mutexEvent);
    note(pHandle->u32EventCount > 0, "events");
    note(pPrivate->pRing->bTaken, "handler");
    note(!pPrivate->pRing->lstOwnEvents.empty(), "own-events");
    note(pPrivate->pRing->u32Producers > 0, "producers");
    pthread_mutex_unlock(&pHandle->mutexEvent);
    pthread_mutex_lock(&pPrivate->pCard->mutexCard);
    note(!pPrivate->pCard->lstWriting.empty(), "claimed-names");
    note(pPrivate->pCard->u32Commands > 0, "commands");
    pthread_mutex_unlock(&pPrivate->pCard->mutexCard);
    pthread_mutex_lock(&pPrivate->pSplits->mutexSplits);
    note(!pPrivate->pSplits->lstSplits.empty(), "split-files");
    pthread_mutex_unlock(&pPrivate->pSplits->mutexSplits);
    pthread_mutex_lock(&pPrivate->pFramesOut->mutexFrames);
    note(!pPrivate->pFramesOut->lstFrames.empty(), "frames");
    pthread_mutex_unlock(&pPrivate->pFramesOut->mutexFrames);
    pthread_mutex_lock(&pHandle->mutexRecordList);
    note(!pHandle->lstRecord.empty(), "sessions");
    pthread_mutex_unlock(&pHandle->mutexRecordList);
    pthread_mutex_lock(&pHandle->mutexReplayList);
    note(!pHandle->lstReplay.empty(), "replays");
    pthread_mutex_unlock(&pHandle->mutexReplayList);
    return strLeft;
}

// The state fits what the card is: in or out, mounted or not.
static bool IsTrue(WORLD_S &stWorld)
{
    const QN_STATE_E enState = stWorld.card.pHandle->enState.load();
    const bool bMounted = stWorld.card.IsMounted();
    if (!stWorld.card.IsIn())
    {
        return enState == QN_STATE_E_UNPLUGIN && !bMounted;
    }
    return enState != QN_STATE_E_UNPLUGIN && (enState == QN_STATE_E_MOUNTED) == bMounted;
}

// The last plug event is heard, and everything comes to rest: nothing is left, and the state tells the truth.
static void Settle(WORLD_S &stWorld)
{
    CAMERA_DestroyAll(stWorld);
    PLAYER_CloseAll(stWorld);
    const bool bHeard = TEST_WaitFor([&stWorld] { return KERNEL_IsHeard(stWorld.card.s32Number); }, SETTLE_MS);
    if (!bHeard)
    {
        WATCH_Violation("the monitor does not listen");
        return;
    }
    CHANCE_In100(50) ? stWorld.card.In() : stWorld.card.Out();
    int64_t s64Tries = 0;
    const bool bRest = TEST_WaitFor(
        [&]
        {
            if (s64Tries++ % 500 == 0) // an event may get lost; a host's user plugs the card again
            {
                (void)KERNEL_Uevent(stWorld.card.s32Number, stWorld.card.IsIn() ? "add" : "remove");
            }
            return IsTrue(stWorld) && WhatIsLeft(stWorld).empty();
        },
        SETTLE_MS);
    if (!bRest)
    {
        WATCH_Violation("not at rest: state %d, card %s, %s; left:%s",
                        static_cast<int>(stWorld.card.pHandle->enState.load()), stWorld.card.IsIn() ? "in" : "out",
                        stWorld.card.IsMounted() ? "mounted" : "not mounted", WhatIsLeft(stWorld).c_str());
    }
}

// Weak references to what the queue holds; the payloads are gone with the handle.
static std::vector<std::weak_ptr<void>> Payloads(tagQN_HANDLER_S *pHandle)
{
    std::vector<std::weak_ptr<void>> vecPayloads;
    pthread_mutex_lock(&pHandle->mutexEvent);
    for (const tagQN_EVENT_SLOT_S &stSlot : pHandle->astEventQueue)
    {
        vecPayloads.emplace_back(stSlot.spPayload);
    }
    for (const tagQN_EVENT_SLOT_S &stEvent : pHandle->pstPrivate->pRing->lstOwnEvents)
    {
        vecPayloads.emplace_back(stEvent.spPayload);
    }
    pthread_mutex_unlock(&pHandle->mutexEvent);
    return vecPayloads;
}

static void Destroy(WORLD_S &stWorld)
{
    CAMERA_LeaveAll(stWorld);
    const std::vector<std::weak_ptr<void>> vecPayloads = Payloads(stWorld.card.pHandle);
    {
        const WATCHED watched("QN_Destroy");
        if (QN_Destroy(stWorld.card.pHandle) != 0 || stWorld.card.pHandle != nullptr)
        {
            WATCH_Violation("QN_Destroy failed");
        }
    }
    for (const std::weak_ptr<void> &wpPayload : vecPayloads)
    {
        if (!wpPayload.expired())
        {
            WATCH_Violation("an event's payload outlives the handle");
        }
    }
    EndFrames(stWorld);
    for (auto &camera : stWorld.aCameras)
    {
        GUARDED_Ended(camera);
    }
    for (auto &player : stWorld.aPlayers)
    {
        player.pHandler = nullptr; // gone with the handle
    }
    stWorld.s32Busy = 0;
    KERNEL_Forget(stWorld.card.s32Number);
    if (stWorld.card.IsMounted())
    {
        WATCH_Violation("the card is mounted after QN_Destroy");
    }
    const std::string strPrefix = "c" + std::to_string(stWorld.card.s32Number) + ":";
    for (const char *pszThread : {"event", "hotplug"})
    {
        // A thread that was joined may stand in the kernel's list for a moment yet.
        const std::string strName = strPrefix + pszThread;
        if (!TEST_WaitFor([&strName] { return !PROCESS_HasThread(strName); }))
        {
            WATCH_Violation("thread %s outlives its handle", strName.c_str());
        }
    }
}

void WORLD_Round(WORLD_S &stWorld, int32_t s32Ms)
{
    Begin(stWorld);
    if (!CHANCE_In100(10)) // otherwise the end follows the begin at once
    {
        Work(stWorld, s32Ms);
        if (CHANCE_In100(60)) // otherwise the handle ends in the middle of everything, with frames inside
        {
            EndFrames(stWorld);
            Settle(stWorld);
        }
    }
    Destroy(stWorld);
}
