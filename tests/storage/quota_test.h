// A mounted card whose volume folders hold files of given sizes.
#ifndef QUARRIN_TESTS_QUOTA_TEST_H
#define QUARRIN_TESTS_QUOTA_TEST_H

#include <cstdint>
#include <string>
#include <vector>

#include "storage/storage_support.h"
#include "support/card.h"

/// The checks are called on the test's own thread while the event thread has nothing in hand.
class QUOTA_TEST : public CARD_TEST
{
protected:
    QUOTA_TEST() : m_zone("UTC")
    {
    }

    /// A finished recording of a day of January 2024 in a volume's folder; its path.
    std::string AddFile(int32_t s32Day, uint64_t u64Size, int32_t s32Volume = 0)
    {
        const std::string strDay = (s32Day < 10 ? "0" : "") + std::to_string(s32Day);
        return TEST_Sparse(Folder(s32Volume) + "/2024-01-" + strDay + "-00-00-00.To.2024-01-" + strDay + "-00-05-00.ts",
                           u64Size);
    }

    /// Sets a quota in bytes.
    void SetQuota(uint32_t u32Quota, uint32_t u32Reserve, bool bAutoDelete, int32_t s32Volume = 0)
    {
        libquarrin::tagQN_VOLUME_PARAM_S &stVolume = m_pHandle->astVolume[s32Volume];
        stVolume.u32QuotaType = 0;
        stVolume.u32QuotaBytes = u32Quota;
        stVolume.u32ReserveBytes = u32Reserve;
        stVolume.bAutoDelete = bAutoDelete;
    }

    int32_t Check(int32_t s32Volume = 0)
    {
        return QN_STORAGE_QuotaCheck(m_pHandle, static_cast<libquarrin::QN_VOLUME_ID_E>(s32Volume));
    }

    int32_t Throttled(int32_t s32Volume = 0)
    {
        return QN_STORAGE_QuotaCheckWithThrottle(m_pHandle, static_cast<libquarrin::QN_VOLUME_ID_E>(s32Volume));
    }

    bool IsFull() const
    {
        return m_pHandle->enStorageState.load() == libquarrin::QN_STORAGE_STATE_E_FULL;
    }

    /// Number of checks that were made since the platform was reset.
    int32_t Checks() const
    {
        int32_t s32Count = 0;
        for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
        {
            s32Count += stLog.strText.find("] quota:") != std::string::npos ? 1 : 0;
        }
        return s32Count;
    }

    bool LoggedInfo(const std::string &strText) const
    {
        return FAKE_PLATFORM_LoggedExactly(6, "QN_STORAGE_QuotaCheck", strText);
    }

    /// The texts of the log so far.
    std::vector<std::string> LogTexts() const
    {
        std::vector<std::string> vecTexts;
        for (const FAKE_LOG_S &stLog : FAKE_PLATFORM_Logs())
        {
            vecTexts.push_back(stLog.strText);
        }
        return vecTexts;
    }

    TIME_ZONE m_zone;
    STDOUT_CAPTURE m_out;
};

#endif
