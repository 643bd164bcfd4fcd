#include "storage_handle.h"

#include <gtest/gtest.h>

struct QUOTA_CASE_S
{
    const char *pszText;
    uint32_t u32Bytes;
    uint32_t u32Percent;
};

TEST(QuotaText, TakesBytesUnitsAndPercentages)
{
    const QUOTA_CASE_S astCases[] = {{"1", 1, 0},
                                     {"4096", 4096, 0},
                                     {"500K", 512000, 0},
                                     {"500M", 524288000, 0},
                                     {"2G", 2147483648u, 0},
                                     {"3GB", 3221225472u, 0},
                                     {"4095M", 4293918720u, 0},
                                     {"4294967295", 4294967295u, 0},
                                     {"1%", 0, 1},
                                     {"80%", 0, 80},
                                     {"100%", 0, 100}};
    for (const QUOTA_CASE_S &stCase : astCases)
    {
        tagTOOL_QUOTA_S stQuota;
        std::string strError;
        EXPECT_TRUE(TOOL_STORAGE_ParseQuota(stCase.pszText, stQuota, strError)) << stCase.pszText << strError;
        EXPECT_EQ(stCase.u32Bytes, stQuota.u32Bytes) << stCase.pszText;
        EXPECT_EQ(stCase.u32Percent, stQuota.u32Percent) << stCase.pszText;
    }
}

TEST(QuotaText, RefusesWhatIsNoQuota)
{
    for (const char *pszText :
         {"", "0", "0%", "101%", "M", "-5M", "5m5", "5 M", "5%%", "5T", "1e9", "5MBx", "+5", "99999999999999999999999"})
    {
        tagTOOL_QUOTA_S stQuota;
        std::string strError;
        EXPECT_FALSE(TOOL_STORAGE_ParseQuota(pszText, stQuota, strError)) << pszText;
        EXPECT_NE(std::string::npos, strError.find("500M")) << strError;
    }
}

TEST(QuotaText, TellsToUseAPercentageFrom4GiBOn)
{
    for (const char *pszText : {"4G", "4096M", "4294967296", "18446744073709551615G"})
    {
        tagTOOL_QUOTA_S stQuota;
        std::string strError;
        EXPECT_FALSE(TOOL_STORAGE_ParseQuota(pszText, stQuota, strError)) << pszText;
        EXPECT_NE(std::string::npos, strError.find("percentage")) << strError;
    }
}
