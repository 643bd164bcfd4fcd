// The log of the utility layer: one whole line per message on standard error.

#include <cerrno>
#include <ctime>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>

#include "bu_platform.h"
#include "helpers.h"
#include "printable.h"
#include "quarrin_platform.h"

/// Standard error is a socket that keeps the borders of writes.
class PlatformLog : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, m_as32Sockets));
    }

    void TearDown() override
    {
        QN_PLATFORM_SetLogLevel(6);
        close(m_as32Sockets[0]);
        close(m_as32Sockets[1]);
    }

    /// The next write; empty when there is none.
    std::string NextWrite() const
    {
        char szText[8192];
        const ssize_t sLen = recv(m_as32Sockets[0], szText, sizeof(szText), MSG_DONTWAIT);
        return sLen > 0 ? std::string(szText, static_cast<size_t>(sLen)) : std::string();
    }

    int m_as32Sockets[2] = {-1, -1};
};

TEST_F(PlatformLog, LineHasTimeLevelPrefixAndText)
{
    {
        const STDERR_SWAP swap(m_as32Sockets[1]);
        UTIL_LOG_Print(3, "QN_RecordInit[12] ", "text %d %s", 5, "x");
        UTIL_LOG_Print(4, "F[1] ", "text");
        UTIL_LOG_Print(6, "F[1] ", "text");
    }
    const std::string strTime = "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}[+-]\\d{4} ";
    EXPECT_TRUE(std::regex_match(NextWrite(), std::regex(strTime + "ERROR QN_RecordInit\\[12\\] text 5 x\n")));
    EXPECT_TRUE(std::regex_match(NextWrite(), std::regex(strTime + "WARN F\\[1\\] text\n")));
    EXPECT_TRUE(std::regex_match(NextWrite(), std::regex(strTime + "INFO F\\[1\\] text\n")));
    EXPECT_EQ("", NextWrite());
}

TEST_F(PlatformLog, TimeIsThatOfTheLocalZone)
{
    const char *pszBefore = getenv("TZ");
    const std::string strBefore = pszBefore != nullptr ? pszBefore : "";
    setenv("TZ", "HERE-05:30", 1);
    tzset();
    {
        const STDERR_SWAP swap(m_as32Sockets[1]);
        UTIL_LOG_Print(6, "", "x");
    }
    pszBefore != nullptr ? setenv("TZ", strBefore.c_str(), 1) : unsetenv("TZ");
    tzset();
    EXPECT_NE(std::string::npos, NextWrite().find("+0530 INFO x\n"));
}

TEST_F(PlatformLog, LimitHoldsBackWhatIsLessImportant)
{
    {
        const STDERR_SWAP swap(m_as32Sockets[1]);
        UTIL_LOG_Print(7, "", "debug");
        QN_PLATFORM_SetLogLevel(3);
        UTIL_LOG_Print(4, "", "warning");
        BSP_PrintLog(6, "information\n");
        UTIL_LOG_Print(3, "", "error");
    }
    EXPECT_NE(std::string::npos, NextWrite().find("ERROR error\n"));
    EXPECT_EQ("", NextWrite());
}

TEST_F(PlatformLog, LimitZeroSilencesEverything)
{
    {
        const STDERR_SWAP swap(m_as32Sockets[1]);
        QN_PLATFORM_SetLogLevel(0);
        UTIL_LOG_Print(0, "", "x");
        UTIL_LOG_Print(3, "", "x");
        BSP_PrintLog(-1, "x");
        EXPECT_EQ(127, QN_PLATFORM_RunCommand(nullptr));
    }
    EXPECT_EQ("", NextWrite());
}

TEST_F(PlatformLog, NewlineAtTheEndIsNotDoubled)
{
    {
        const STDERR_SWAP swap(m_as32Sockets[1]);
        BSP_PrintLog(3, "create %s failed\n", "thread");
        BSP_PrintLog(3, "plain");
    }
    EXPECT_TRUE(std::regex_match(NextWrite(), std::regex("[^\n]* ERROR create thread failed\n")));
    EXPECT_TRUE(std::regex_match(NextWrite(), std::regex("[^\n]* ERROR plain\n")));
}

TEST_F(PlatformLog, NamesOfStrangersMakeNoLineAndMoveNoCursor)
{
    {
        const STDERR_SWAP swap(m_as32Sockets[1]);
        UTIL_LOG_Print(4, "F[1] ", "remove %s failed\n", "a\nERROR forged\r\x1b[2J\x9b\xc2\x9b\x7f");
        BSP_PrintLog(3, "%s\n\n", "\xe2\x80\xa8|\xe2\x80\xae|\xe2\x81\xa6|\xd8\x9c");
    }
    EXPECT_NE(std::string::npos, NextWrite().find("F[1] remove a\\nERROR forged\\r\\x1b[2J\\x9b\\u009b\\x7f failed\n"));
    EXPECT_NE(std::string::npos, NextWrite().find(" \\u2028|\\u202e|\\u2066|\\u061c\n"));
}

TEST_F(PlatformLog, PrintableTextStaysAsItIs)
{
    const std::string strText = "Türk \\ back 日本 \xf0\x9f\x8e\xa5 \"q\"";
    EXPECT_EQ(strText, PLATFORM_Printable(strText));
    EXPECT_EQ("\\xc3(|\\xed\\xa0\\x80|\\xc0\\xaf|\\xe2\\x80",
              PLATFORM_Printable("\xc3(|\xed\xa0\x80|\xc0\xaf|\xe2\x80"));
    EXPECT_EQ("\\x00", PLATFORM_Printable(std::string(1, '\0')));
    EXPECT_TRUE(PLATFORM_IsUtf8(strText));
    for (const char *pszText : {"\xff", "a\xc3", "\xed\xa0\x80", "\xf4\x90\x80\x80"})
    {
        EXPECT_FALSE(PLATFORM_IsUtf8(pszText));
    }
}

TEST_F(PlatformLog, LongLineIsNotCut)
{
    const std::string strLong(4000, 'z');
    {
        const STDERR_SWAP swap(m_as32Sockets[1]);
        UTIL_LOG_Print(6, "F[1] ", "%s", strLong.c_str());
    }
    EXPECT_NE(std::string::npos, NextWrite().find("F[1] " + strLong + "\n"));
}

TEST_F(PlatformLog, KeepsErrnoThoughTheWriteFails)
{
    const int s32ReadOnly = open("/dev/null", O_RDONLY | O_CLOEXEC);
    {
        const STDERR_SWAP swap(s32ReadOnly);
        errno = ENOSPC;
        UTIL_LOG_Print(6, "", "x");
        EXPECT_EQ(ENOSPC, errno);
    }
    close(s32ReadOnly);
}

TEST_F(PlatformLog, LinesOfSeveralThreadsStayWhole)
{
    std::vector<std::thread> vecThreads;
    int32_t s32Lines = 0;
    {
        const STDERR_SWAP swap(m_as32Sockets[1]);
        for (int32_t i = 0; i < 4; ++i)
        {
            vecThreads.emplace_back(
                [i]
                {
                    for (int32_t j = 0; j < 50; ++j)
                    {
                        UTIL_LOG_Print(6, "F[1] ", "%d%s", i, std::string(300, 'y').c_str());
                    }
                });
        }
        const std::regex whole("\\S+ INFO F\\[1\\] [0-3]y{300}\n");
        while (s32Lines < 4 * 50) // the socket holds fewer lines than are written
        {
            char szText[8192];
            const ssize_t sLen = recv(m_as32Sockets[0], szText, sizeof(szText), 0);
            ASSERT_GT(sLen, 0);
            EXPECT_TRUE(std::regex_match(std::string(szText, static_cast<size_t>(sLen)), whole));
            ++s32Lines;
        }
        for (std::thread &thread : vecThreads)
        {
            thread.join();
        }
    }
    EXPECT_EQ("", NextWrite());
}
