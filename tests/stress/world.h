// One card, its handle, and the threads of a host that does everything at once for a while. The host keeps its rules:
// no call on a session or replay begins once its end has begun, and nothing is called while the handle is destroyed.
#ifndef QUARRIN_TESTS_WORLD_H
#define QUARRIN_TESTS_WORLD_H

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "card.h"
#include "guarded.h"
#include "libquarrin.h"

constexpr size_t WORLD_CAMERAS = 3;
constexpr size_t WORLD_PLAYERS = 2;

struct WORLD_S
{
    explicit WORLD_S(int32_t s32Card) : card(s32Card)
    {
    }

    STRESS_CARD card;
    libquarrin::tagQN_STORAGE_PARAM_S stParam;
    std::array<GUARDED_S<libquarrin::tagQN_RECORD_HANDLER_S>, WORLD_CAMERAS> aCameras;
    std::array<GUARDED_S<libquarrin::tagQN_REPLAY_HANDLER_S>, WORLD_PLAYERS> aPlayers;
    std::atomic<bool> bStop{false};       ///< the round ends
    std::atomic<bool> bStopFrames{false}; ///< and so do the frames
    std::vector<std::thread> vecFrames;   ///< the threads of the frames
    std::atomic<bool> bQuiet{false};      ///< sessions and replays are ended, and no new ones made
    std::atomic<int32_t> s32Busy{0};      ///< sessions and replays that are there, or being made
    std::atomic<uint64_t> u64Pts{1};      ///< of the frames, for all sessions
};

/// What each thread of the host does until bStop, those of the frames until bStopFrames.
void CAMERA_Control(WORLD_S &stWorld, size_t camera);
void CAMERA_Feed(WORLD_S &stWorld, size_t camera, bool bVideo);
void PLAYER_Play(WORLD_S &stWorld, size_t player);
void PLAYER_Interfere(WORLD_S &stWorld, size_t player);
void STORAGE_Control(WORLD_S &stWorld);
void STORAGE_Plug(WORLD_S &stWorld);
void STORAGE_Look(WORLD_S &stWorld);

/// Ends what is left of the host's sessions and replays.
void CAMERA_DestroyAll(WORLD_S &stWorld);
void PLAYER_CloseAll(WORLD_S &stWorld);

/// Lets go of the sessions, which QN_Destroy is to end: frames that have begun may still be inside.
void CAMERA_LeaveAll(WORLD_S &stWorld);

/// Runs one round: from QN_Init to QN_Destroy. What may not be is told as a violation.
void WORLD_Round(WORLD_S &stWorld, int32_t s32Ms);

/// Encodes the frames once, before threads begin.
void CAMERA_Prepare();

#endif
