// A session or replay that several threads call and one thread ends. The host's rule: no call begins once the end has
// begun; those that have begun may still be inside.
#ifndef QUARRIN_TESTS_GUARDED_H
#define QUARRIN_TESTS_GUARDED_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>

#ifdef __SANITIZE_THREAD__
/// An order between the calls of two threads would hide from the sanitizer that the library makes none. On the machines
/// that it runs on, counting orders memory all the same.
constexpr std::memory_order ANNOUNCE = std::memory_order_relaxed;
#else
constexpr std::memory_order ANNOUNCE = std::memory_order_seq_cst;
#endif

/// What the threads share.
template <typename HANDLER> struct GUARDED_S
{
    std::atomic<HANDLER *> pHandler{nullptr}; ///< set by the one thread that makes and ends it
    std::atomic<int32_t> s32Calls{0};         ///< weight of the calls that were announced and have not returned
    std::atomic<int32_t> s32Begun{0};         ///< of them, those that are known to have begun
    std::atomic<bool> bEnding{false};         ///< no call begins any more
};

/// Tells that the calling thread's call has begun: the library has come to a slot of the media table.
void GUARDED_NoteBegun();

/// The call of the calling thread; what GUARDED_NoteBegun counts up, once.
struct GUARDED_CALL_S
{
    std::atomic<int32_t> *ps32Begun = nullptr;
    bool bBegun = false;
};

/// Sets the calling thread's call; null: none.
void GUARDED_SetCall(GUARDED_CALL_S *pCall);

/// One call, announced first, so that its end does not come in between.
template <typename HANDLER> class ENTERED
{
public:
    /// s32Weight: how often the library counts the call at most.
    explicit ENTERED(GUARDED_S<HANDLER> &guarded, int32_t s32Weight = 1) : m_guarded(guarded), m_s32Weight(s32Weight)
    {
        m_guarded.s32Calls.fetch_add(m_s32Weight, ANNOUNCE);
        if (!m_guarded.bEnding.load(ANNOUNCE))
        {
            m_pHandler = m_guarded.pHandler.load(std::memory_order_acquire);
        }
        m_stCall.ps32Begun = &m_guarded.s32Begun;
        GUARDED_SetCall(&m_stCall);
    }
    ~ENTERED()
    {
        GUARDED_SetCall(nullptr);
        m_guarded.s32Begun.fetch_sub(m_stCall.bBegun ? 1 : 0, std::memory_order_relaxed);
        m_guarded.s32Calls.fetch_sub(m_s32Weight, std::memory_order_release);
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
    int32_t m_s32Weight;
    GUARDED_CALL_S m_stCall;
    HANDLER *m_pHandler = nullptr;
};

/// Keeps new calls off until GUARDED_Ended, and waits until every announced one has returned, or with bInside has
/// begun; what is to be ended. fnCounted tells how many calls the library counts on it. The maker's thread alone.
template <typename HANDLER>
HANDLER *GUARDED_BeginEnd(GUARDED_S<HANDLER> &guarded, bool bInside,
                          const std::function<int32_t(HANDLER *)> &fnCounted = nullptr)
{
    guarded.bEnding.exchange(true, ANNOUNCE);
    HANDLER *pHandler = guarded.pHandler.exchange(nullptr, std::memory_order_relaxed);
    for (;;)
    {
        // From here on the number can only fall: as many that have begun are all of them.
        const int32_t s32Calls = guarded.s32Calls.load(std::memory_order_acquire);
        if (s32Calls == 0)
        {
            return pHandler;
        }
        if (bInside && pHandler != nullptr &&
            (guarded.s32Begun.load(std::memory_order_relaxed) >= s32Calls ||
             (fnCounted && fnCounted(pHandler) >= s32Calls)))
        {
            return pHandler;
        }
        std::this_thread::yield();
    }
}

/// The next one may be made.
template <typename HANDLER> void GUARDED_Ended(GUARDED_S<HANDLER> &guarded)
{
    guarded.bEnding.store(false, std::memory_order_release);
}

#endif
