// One card, its handle, and the threads of a host that does everything at once for a while. The host keeps its rules: no
// call on a session or replay begins once its end has begun, and nothing is called while the handle is destroyed.
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
#include "libquarrin.h"

constexpr size_t WORLD_CAMERAS = 3;
constexpr size_t WORLD_PLAYERS = 2;

#ifdef __SANITIZE_THREAD__
/// An order between the calls of two threads would hide from the sanitizer that the library makes none. On the machines
/// that it runs on, counting orders memory all the same.
constexpr std::memory_order ANNOUNCE = std::memory_order_relaxed;
#else
constexpr std::memory_order ANNOUNCE = std::memory_order_seq_cst;
#endif

/// A session or replay that several threads call.
template <typename HANDLER> struct GUARDED_S
{
    std::atomic<HANDLER *> pHandler{nullptr}; ///< set by the one thread that makes and ends it
    std::atomic<int32_t> s32Calls{0};         ///< that have been announced and have not returned
    std::atomic<bool> bEnding{false};         ///< no call begins any more
};

/// One call on it: announced first, so that its end does not come in between.
template <typename HANDLER> class ENTERED
{
public:
    explicit ENTERED(GUARDED_S<HANDLER> &guarded) : m_guarded(guarded)
    {
        m_guarded.s32Calls.fetch_add(1, ANNOUNCE);
        if (!m_guarded.bEnding.load(ANNOUNCE))
        {
            m_pHandler = m_guarded.pHandler.load(std::memory_order_acquire);
        }
    }
    ~ENTERED()
    {
        m_guarded.s32Calls.fetch_sub(1, std::memory_order_release);
    }
    ENTERED(const ENTERED &) = delete;
    ENTERED &operator=(const ENTERED &) = delete;

    /// Null: there is none, or it is being ended.
    HANDLER *Handler() const
    {
        return m_pHandler;
    }

private:
    GUARDED_S<HANDLER> &m_guarded;
    HANDLER *m_pHandler = nullptr;
};

/// Keeps new calls off and waits until every announced one has returned; what is to be ended. The maker's thread alone.
template <typename HANDLER> HANDLER *GUARDED_BeginEnd(GUARDED_S<HANDLER> &guarded)
{
    guarded.bEnding.exchange(true, ANNOUNCE);
    while (guarded.s32Calls.load(std::memory_order_acquire) > 0)
    {
        std::this_thread::yield();
    }
    return guarded.pHandler.exchange(nullptr, std::memory_order_relaxed);
}

/// The next one may be made.
template <typename HANDLER> void GUARDED_Ended(GUARDED_S<HANDLER> &guarded)
{
    guarded.bEnding.store(false, std::memory_order_release);
}

struct WORLD_S
{
    explicit WORLD_S(int32_t s32Card) : card(s32Card)
    {
    }

    STRESS_CARD card;
    libquarrin::tagQN_STORAGE_PARAM_S stParam;
    std::array<GUARDED_S<libquarrin::tagQN_RECORD_HANDLER_S>, WORLD_CAMERAS> aCameras;
    std::array<GUARDED_S<libquarrin::tagQN_REPLAY_HANDLER_S>, WORLD_PLAYERS> aPlayers;
    std::atomic<bool> bStop{false};  ///< the round ends
    std::atomic<bool> bQuiet{false}; ///< sessions and replays are ended, and no new ones made
    std::atomic<int32_t> s32Busy{0}; ///< sessions and replays that are there, or being made
    std::atomic<uint64_t> u64Pts{1}; ///< of the frames, for all sessions
};

/// What each thread of the host does until bStop.
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

/// Runs one round: from QN_Init to QN_Destroy. What may not be is told as a violation.
void WORLD_Round(WORLD_S &stWorld, int32_t s32Ms);

/// Encodes the frames once, before threads begin.
void CAMERA_Prepare();

#endif
