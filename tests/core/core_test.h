// The card of tests/support with a limit on the time of every test, sessions on the fake back end, and a look at what
// is left when the handle is gone.
#ifndef QUARRIN_TESTS_CORE_TEST_H
#define QUARRIN_TESTS_CORE_TEST_H

#include <memory>
#include <string>
#include <vector>

#include <atomic>
#include <functional>
#include <thread>

#include "core/fake_backend.h"
#include "core/system_calls.h"
#include "support/card.h"
#include "support/process.h"
#include "support/thread_creation.h"

/// Every test ends without a thread, a descriptor or an open writer of the library's.
class CORE_TEST : public CARD_TEST
{
protected:
    void SetUp() override;
    void TearDown() override;

    /// Waits until all events, and those that their handlers posted, are handled.
    bool Settle();

    /// Makes the handle without a device: state UNPLUGIN, no event, nothing to be run.
    void InitUnplugged();

    /// Makes the handle and ends its event thread, with the queue still open: the test takes the dispatcher's steps
    /// itself.
    void InitWithoutEventThread();

    /// Sets enState under mutexState.
    void SetState(libquarrin::QN_STATE_E enState);

    libquarrin::QN_STATE_E State() const;

    /// Number of queued events.
    uint32_t Queued();

    int32_t Push(int32_t s32Event, std::shared_ptr<void> spPayload = nullptr);

    /// Fills the ring with events that nobody handles.
    void FillRing();

    /// Lets the event thread wait in a handler that holds no lock, with nothing queued behind it: a split-off file
    /// whose closing is held up. s32Ms bounds the wait.
    void StallDispatcher();
    void ReleaseDispatcher();

    /// A session on the fake back end. Split after u32SplitSeconds; 0 splits at every key frame once a second.
    libquarrin::tagQN_RECORD_HANDLER_S *MakeSession(bool bAutoSplit = false, uint32_t u32SplitSeconds = 3600);

    /// As MakeSession, started under a tag, with one key frame.
    libquarrin::tagQN_RECORD_HANDLER_S *MakeRunningSession(const std::string &strTag, bool bAutoSplit = false);

    /// Sets the begin of the session's file back, so that the next key frame splits and the file is long enough.
    void Age(libquarrin::tagQN_RECORD_HANDLER_S *pSession, int64_t s64Seconds);

    uint32_t WriteKeyFrame(libquarrin::tagQN_RECORD_HANDLER_S *pSession);

    /// A replay handler of a real file; its reader is replaced by one of the fake back end.
    libquarrin::tagQN_REPLAY_HANDLER_S *MakeReplay(const libquarrin::tagQN_MEDIA_API_S *pstMediaApi = &g_stFakeBackend);

    std::string MountLine() const;
    std::string UnmountLine() const;

    /// What was open below the mount point whenever the unmount line was issued.
    std::vector<std::string> OpenAtUnmount();

private:
    std::unique_ptr<PROCESS_LIMIT> m_spLimit;
    int32_t m_s32Threads = 0;
    int32_t m_s32Descriptors = 0;
    std::shared_ptr<std::vector<std::string>> m_spOpenAtUnmount;
};

/// A thread that is joined at the end of the block, and tells whether its work is done.
class BACKGROUND
{
public:
    explicit BACKGROUND(std::function<void()> fnWork);
    ~BACKGROUND();
    BACKGROUND(const BACKGROUND &) = delete;
    BACKGROUND &operator=(const BACKGROUND &) = delete;

    bool IsDone(int32_t s32Ms = 0) const;
    bool WaitDone(int32_t s32Ms = 30000) const;
    /// For what must not happen: it did not within a short while.
    bool StaysBusy() const;

private:
    std::atomic<bool> m_bDone{false};
    std::thread m_thread;
};

#endif
