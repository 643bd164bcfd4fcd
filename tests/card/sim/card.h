// A memory card for tests: an image file on a loop device of its own, which appears and disappears as a card does.
//
// Putting it in adds the loop device and attaches the image: the kernel sends add@ with a path that ends in the
// device's name. Pulling it makes the kernel send remove@. On a kernel without a parser for DOS tables a watcher thread
// makes the partition node, as that parser would.
//
// Nothing but devices made here is ever touched: their numbers are 40 and up, and a note in the card's directory,
// locked as long as the program lives, says whose they are. A program that is killed leaves a guard process behind that
// takes its cards away; the next program looks for what even the guard could not.
// Threads: one card is one thread's at a time.
#ifndef QUARRIN_TESTS_CARD_SIM_CARD_H
#define QUARRIN_TESTS_CARD_SIM_CARD_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "fuse_image.h"
#include "image.h"

/// What a card is made of.
struct CARD_PARAM_S
{
    int64_t s64Bytes = 64 * 1024 * 1024;          ///< size of the card
    CARD_CONTENT_E enContent = CARD_CONTENT_EXT4; ///< what is on it
    std::string strFrom;      ///< not empty: the image is a copy of this file, whatever enContent says
    bool bReadOnly = false;   ///< its write-protect tab is set
    bool bWhole = false;      ///< a file system on the device itself: nobody watches for a table, or opens the device
    bool bServed = false;     ///< the image comes from a server process, for Kill, Delay and Fail
    std::string strLog;       ///< with bServed: every write and flush is logged in this file (see write_log.h)
    int64_t s64ThinBytes = 0; ///< not 0: the image has only this much room, so that writes fail later than they should
};

/// How a card is pulled.
enum CARD_PULL_E : int32_t
{
    CARD_PULL_WRITTEN, ///< what was written reaches the card before it is gone
    CARD_PULL_CUT,     ///< from this moment on nothing reaches the card any more (an ext4 file system, or bServed)
    CARD_PULL_BARE,    ///< the same, and what is mounted stays mounted: on a dead device, for somebody else to take off
};

class CARD
{
public:
    explicit CARD(const CARD_PARAM_S &stParam = CARD_PARAM_S());
    ~CARD();
    CARD(const CARD &) = delete;
    CARD &operator=(const CARD &) = delete;

    /// Why this machine or user cannot have cards, as a sentence; empty when it can.
    static std::string WhyNot();

    /// The card could be made.
    bool IsReady() const
    {
        return m_bReady;
    }

    const std::string &Device() const ///< "/dev/loopN"; absent while the card is out
    {
        return m_strDevice;
    }
    const std::string &Partition() const ///< "/dev/loopNp1"
    {
        return m_strPartition;
    }
    const std::string &MountDir() const ///< directory to mount on; not made here
    {
        return m_strMount;
    }
    const std::string &Image() const ///< path of the image file
    {
        return m_strImage;
    }
    const std::string &Dir() const ///< the card's own directory, removed with the card
    {
        return m_strDir;
    }

    /// Puts the card in. False when the old device is not gone yet, or the kernel refuses.
    bool In();

    /// Pulls the card: mounts of it are detached (but for CARD_PULL_BARE), the device nodes go, remove@ is sent. Open
    /// files keep the kernel's device alive until they are closed; Gone removes it then.
    bool Out(CARD_PULL_E enPull);

    /// The device is gone entirely. Waits for the last user, at most s32Ms milliseconds.
    bool Gone(int32_t s32Ms = 5000);

    /// Lets the kernel announce "add" or "remove" of the device, which stays as it is.
    bool Announce(const char *pszAction);

    /// Nothing of what is written from now on reaches the mounted card; what is written already may be lost too. The
    /// file system must be unmounted and mounted again. False when it is not mounted, or cannot do it.
    bool CutPower();

    /// Unmounts everything of the card; open files live on.
    void Unmount();

    /// A copy of the image as it is at this moment, also while it is written.
    bool Copy(const std::string &strPath) const;

    /// The server of the image (bServed); null otherwise.
    FUSE_IMAGE *Server()
    {
        return m_upServer.get();
    }

    /// More room for a thin image.
    bool Grow(int64_t s64Bytes);

private:
    bool Prepare(const CARD_PARAM_S &stParam);
    bool AddDevice();
    bool Attach();
    void StartWatch();
    void StopWatch();

    bool m_bReadOnly;
    bool m_bServed;
    bool m_bThin;
    bool m_bWhole;
    bool m_bReady = false;
    bool m_bIn = false;
    bool m_bDevice = false; ///< the kernel has the device
    int32_t m_s32Number = -1;
    int m_s32Note = -1; ///< the note, locked
    std::string m_strDir;
    std::string m_strImage;
    std::string m_strDevice;
    std::string m_strPartition;
    std::string m_strMount;
    std::unique_ptr<FUSE_IMAGE> m_upServer;
    std::atomic<bool> m_bWatch{false};
    std::thread m_watcher;
};

#endif
