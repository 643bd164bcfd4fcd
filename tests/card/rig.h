// A card with a handle of the library on it, for the tests of this folder. The shell lines of the library run for real,
// after each was found to name this card's device or mount directory and nothing else.
#ifndef QUARRIN_TESTS_CARD_RIG_H
#define QUARRIN_TESTS_CARD_RIG_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "card/sim/card.h"
#include "libquarrin.h"
#include "support/capture.h"
#include "support/fake_platform.h"
#include "support/process.h"
#include "support/wait.h"

/// The library's own waits are a second long, and the machine may be busy.
constexpr int32_t RIG_WAIT_MS = 30000;

/// Skips with a sentence where there can be no cards; keeps the library's lines off the terminal.
class CARD_REAL : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override; // a line that was refused fails the test

    std::unique_ptr<STDOUT_CAPTURE> m_upOut;
};

/// A card and its handle.
class CARD_RIG
{
public:
    explicit CARD_RIG(const CARD_PARAM_S &stCard = CARD_PARAM_S());
    ~CARD_RIG();
    CARD_RIG(const CARD_RIG &) = delete;
    CARD_RIG &operator=(const CARD_RIG &) = delete;

    /// QN_Init with stParam.
    void Init();

    /// QN_Destroy, when there is a handle.
    void Destroy();

    /// Puts the card in and waits until it is mounted and its folders are there.
    bool InMounted();

    libquarrin::QN_STATE_E State() const;
    bool WaitFor(libquarrin::QN_STATE_E enState, int32_t s32Ms = RIG_WAIT_MS) const;

    /// Waits until the monitor listens.
    bool WaitListening() const;

    /// Waits until every event is handled, and what its handler posted: after a mount the folders are there.
    bool WaitIdle() const;

    /// Folder of volume 0.
    std::string Folder() const;

    /// Paths of the finished recordings, by name.
    std::vector<std::string> Finished() const;

    /// Number of mounts on the mount directory.
    int32_t Mounts() const;

    CARD card;
    libquarrin::tagQN_STORAGE_PARAM_S stParam;
    libquarrin::tagQN_HANDLER_S *pHandle = nullptr;
};

/// Runs one call of the library and notes how long it took.
void RIG_Timed(const char *pszName, const std::function<void()> &fnCall);

/// The longest call of each name since the last reset, as "name 12 ms, ...", and the longest of all in ms.
std::string RIG_TimesText();
int64_t RIG_LongestMs();
void RIG_ResetTimes();

/// A whole number from the environment, or s32Default.
int32_t RIG_Number(const char *pszName, int32_t s32Default);

/// Prints one line of figures on standard error, which the capture leaves alone.
void RIG_Say(const char *pszFormat, ...) __attribute__((format(printf, 1, 2)));

#endif
