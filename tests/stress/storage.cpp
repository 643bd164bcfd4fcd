// The storage: the card goes and comes, the host mounts, unmounts and formats, and looks after quota and damaged files.

#include "world.h"

#include "chance.h"
#include "kernel.h"
#include "support/wait.h"
#include "watch.h"

using namespace libquarrin;

static void Unmount(WORLD_S &stWorld)
{
    const WATCHED watched("QN_StorageUnMount");
    WATCH_Log("unmount: %u", QN_StorageUnMount(stWorld.card.pHandle));
}

static void Mount(WORLD_S &stWorld)
{
    const WATCHED watched("QN_StorageMount");
    WATCH_Log("mount: %u", QN_StorageMount(stWorld.card.pHandle));
}

static void Format(WORLD_S &stWorld)
{
    const WATCHED watched("QN_StorageFormat");
    const uint32_t u32Kind = CHANCE_Below(10); // one in ten asks for a file system that there is not
    const QN_FS_TYPE_E enType = static_cast<QN_FS_TYPE_E>(u32Kind == 0 ? 3 : 1 + u32Kind % 2);
    WATCH_Log("format: %u", QN_StorageFormat(stWorld.card.pHandle, enType));
}

static QN_STATE_E State(WORLD_S &stWorld)
{
    const WATCHED watched("QN_GetState");
    QN_STATE_E enState = QN_STATE_E_UNPLUGIN;
    (void)QN_GetState(stWorld.card.pHandle, &enState);
    return enState;
}

// Everything is ended for a moment, so that the host may unmount, format and mount.
static void QuietTime(WORLD_S &stWorld)
{
    stWorld.bQuiet = true;
    (void)TEST_WaitFor([&stWorld] { return stWorld.s32Busy == 0 || stWorld.bStop; }, 20000);
    Unmount(stWorld);
    if (CHANCE_In100(50))
    {
        Format(stWorld);
        if (CHANCE_In100(70))
        {
            (void)TEST_WaitFor([&stWorld] { return stWorld.bStop || State(stWorld) != QN_STATE_E_FORMATING; }, 20000);
        }
    }
    CHANCE_Delay(100);
    Mount(stWorld);
    stWorld.bQuiet = false;
}

void STORAGE_Control(WORLD_S &stWorld)
{
    while (!stWorld.bStop)
    {
        TEST_SleepMs(static_cast<int32_t>(CHANCE_Below(60)));
        const uint32_t u32Kind = CHANCE_Below(100);
        if (u32Kind < 4)
        {
            QuietTime(stWorld);
        }
        else if (u32Kind < 30)
        {
            Unmount(stWorld); // refused, as a rule: something is open
        }
        else if (u32Kind < 50)
        {
            Mount(stWorld);
        }
        else if (u32Kind < 60)
        {
            Format(stWorld);
        }
        else
        {
            (void)State(stWorld);
        }
    }
}

void STORAGE_Plug(WORLD_S &stWorld)
{
    while (!stWorld.bStop)
    {
        TEST_SleepMs(static_cast<int32_t>(CHANCE_Below(stWorld.card.IsIn() ? 500 : 60)));
        if (CHANCE_In100(15))
        {
            // The kernel says something that is not so, or says it twice.
            (void)KERNEL_Uevent(stWorld.card.s32Number, CHANCE_In100(50) ? "add" : "remove");
            continue;
        }
        if (stWorld.card.IsIn())
        {
            stWorld.card.Out();
            (void)KERNEL_Uevent(stWorld.card.s32Number, "remove");
        }
        else
        {
            stWorld.card.In();
            (void)KERNEL_Uevent(stWorld.card.s32Number, "add");
        }
    }
}

static void MoveDamaged(WORLD_S &stWorld, const std::vector<tagQN_FILE_INFO_S> &vecFiles)
{
    if (vecFiles.empty())
    {
        return;
    }
    const std::string &strName = vecFiles[CHANCE_Below(static_cast<uint32_t>(vecFiles.size()))].strName;
    if (strName.find(".To.unknown") != std::string::npos)
    {
        return; // somebody may be writing it
    }
    const WATCHED watched("QN_RecordErrorFileClear");
    (void)QN_RecordErrorFileClear(stWorld.card.pHandle, QN_VOLUME_ID_E_0, strName.c_str());
}

void STORAGE_Look(WORLD_S &stWorld)
{
    tagQN_HANDLER_S *pHandle = stWorld.card.pHandle;
    while (!stWorld.bStop)
    {
        TEST_SleepMs(static_cast<int32_t>(CHANCE_Below(20)));
        const QN_VOLUME_ID_E enVolume = static_cast<QN_VOLUME_ID_E>(CHANCE_In100(70) ? 0 : CHANCE_Below(4));
        if (CHANCE_In100(30))
        {
            const WATCHED watched("QN_RecordStorageUpdate");
            (void)QN_RecordStorageUpdate(pHandle, enVolume, CHANCE_In100(70) ? 1 : 0);
            continue;
        }
        std::vector<tagQN_FILE_INFO_S> vecFiles;
        QN_STORAGE_STATE_E enState = QN_STORAGE_STATE_E_NORMAL;
        {
            const WATCHED watched("QN_ReplayListFile");
            (void)QN_ReplayListFile(pHandle, enVolume, &vecFiles);
        }
        {
            const WATCHED watched("QN_GetStorageState");
            (void)QN_GetStorageState(pHandle, &enState);
        }
        if (CHANCE_In100(10) && enVolume == QN_VOLUME_ID_E_0)
        {
            MoveDamaged(stWorld, vecFiles);
        }
    }
}
