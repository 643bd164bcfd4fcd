// A card of plain folders: what is on it, whether it is in, and the command lines that are run on it. A mount moves the
// card's folder to the mount directory, an unmount moves it back; so files keep, and what lies below the mount
// directory without a mount is seen.
#ifndef QUARRIN_TESTS_STRESS_CARD_H
#define QUARRIN_TESTS_STRESS_CARD_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "libquarrin.h"

class STRESS_CARD
{
public:
    /// Makes folders of its own. The number stands in the device's name, "cN".
    explicit STRESS_CARD(int32_t s32Number);
    ~STRESS_CARD();
    STRESS_CARD(const STRESS_CARD &) = delete;
    STRESS_CARD &operator=(const STRESS_CARD &) = delete;

    /// The nodes come and go. No uevent is sent.
    void In();
    void Out();
    bool IsIn() const;

    /// Takes the mount directory away, as a host does before it makes a handle. A mounted card is unmounted.
    void CleanUp();

    /// A card is mounted at the moment.
    bool IsMounted();

    /// Runs one of the library's command lines. One that is not the library's is a violation.
    int32_t Run(const std::string &strLine);

    /// Every name in a line is one of this card's.
    bool IsMine(const std::string &strLine) const;

    /// Commands that are running.
    int32_t Running() const
    {
        return m_s32Running;
    }

    const int32_t s32Number;
    std::string strDevice;
    std::string strPartition;
    std::string strMount;

    /// The handle on it, as QN_Init sets it; its sessions may have files open at a pull, and nobody else.
    libquarrin::tagQN_HANDLER_S *pHandle = nullptr;

private:
    int32_t RunKnown(const std::string &strLine);
    int32_t RunBelow(const std::string &strLine);
    int32_t Mount();
    int32_t Unmount();
    int32_t MakeFileSystem();
    int32_t Move(const std::string &strLine) const;
    void CheckDescriptors() const;
    void CheckCommands() const;
    void CheckNothingBelow(const char *pszWhen) const;

    std::string m_strDir;
    std::string m_strStore; ///< what is on the card while it is not mounted
    std::mutex m_mutex;
    bool m_bMounted = false; ///< guarded by m_mutex
    std::atomic<int32_t> m_s32Running{0};
    std::atomic<int32_t> m_s32Below{0};        ///< of them, those that make a folder or move a file on the card
    std::atomic<int64_t> m_s64BelowSinceUs{0}; ///< begin of the latest of those
};

/// The cards that exist; command lines go to the one they name.
void STRESS_CARD_Known(const std::vector<STRESS_CARD *> &vecCards);

#endif
