// The log: one text, once to the platform's logger and once to standard output.

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "libquarrin.h"
#include "support/card.h"

using namespace libquarrin;

class Log : public CARD_TEST
{
protected:
    // The line "[LEVEL][FUNC:LINE] TEXT" that belongs to a line of the logger.
    static std::string ConsoleLine(const FAKE_LOG_S &stLog)
    {
        const char *pszLevel = stLog.s32Level == 3 ? "ERROR" : stLog.s32Level == 4 ? "WARN" : "INFO";
        const size_t open = stLog.strPrefix.find('[');
        const size_t close = stLog.strPrefix.find(']');
        return std::string("[") + pszLevel + "][" + stLog.strPrefix.substr(0, open) + ":" +
               stLog.strPrefix.substr(open + 1, close - open - 1) + "] " + stLog.strText + "\n";
    }

    // The logger's one line, which is on standard output too, source line and all.
    void ExpectOneLine(int32_t s32Level, const std::string &strFunc, const std::string &strText)
    {
        const std::vector<FAKE_LOG_S> vecLogs = FAKE_PLATFORM_Logs();
        ASSERT_EQ(1u, vecLogs.size());
        EXPECT_EQ(s32Level, vecLogs[0].s32Level);
        EXPECT_EQ(strText, vecLogs[0].strText);
        const std::string &strPrefix = vecLogs[0].strPrefix;
        ASSERT_EQ(0u, strPrefix.rfind(strFunc + "[", 0)) << strPrefix;
        const int32_t s32Line = std::stoi(strPrefix.substr(strFunc.size() + 1));
        EXPECT_EQ(strFunc + "[" + std::to_string(s32Line) + "] ", strPrefix);
        EXPECT_LT(0, s32Line);
        EXPECT_EQ(1, m_capture.Count(ConsoleLine(vecLogs[0])));
    }

    STDOUT_CAPTURE m_capture;
};

TEST_F(Log, WritesAnErrorTwice)
{
    Init();
    ASSERT_TRUE(WaitForState(QN_STATE_E_MOUNTED));
    ASSERT_TRUE(WaitForIdle());
    ASSERT_TRUE(WaitForIdle()); // behind the event that the first one's handler posted
    FAKE_PLATFORM_Reset();
    EXPECT_EQ(0u, QN_StorageMount(m_pHandle));
    ExpectOneLine(3, "QN_StorageMount", "already mounted");
}

TEST_F(Log, WritesAWarningTwice)
{
    EXPECT_EQ(1u, QN_STORAGE_DeviceIsAccessible(m_strDevice, m_strPartition));
    ExpectOneLine(4, "QN_STORAGE_DeviceIsAccessible", "open failed");
}

TEST_F(Log, WritesInformationTwice)
{
    InitMounted();
    FAKE_PLATFORM_Reset();
    EXPECT_EQ(0, QN_EVENT_Destroy(m_pHandle));
    ExpectOneLine(6, "QN_EVENT_Destroy", "exit");
}

TEST_F(Log, KeepsTextsOfAnyLengthAndTakesNoneForAFormat)
{
    InitMounted();
    const std::string aPaths[] = {"/" + std::string(2000, 'x'), "/" + std::string(493, 'x'), "/%s%n%d%%",
                                  "/\xff\x01\n\t"};
    for (const std::string &strPath : aPaths)
    {
        FAKE_PLATFORM_Reset();
        tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
        EXPECT_EQ(7u, QN_ReplayOpenByFilePath(m_pHandle, strPath, tagQN_REPLAY_PARAM_S{}, pReplay));
        ExpectOneLine(3, "QN_ReplayOpenByFilePath", "file " + strPath + " not exist");
    }
}

TEST_F(Log, IsNotTornByThreads)
{
    InitMounted();
    std::vector<std::thread> vecThreads;
    for (int32_t i = 0; i < 4; ++i)
    {
        vecThreads.emplace_back(
            [this, i]
            {
                const std::string strPath = "/" + std::string(600, static_cast<char>('a' + i));
                for (int32_t j = 0; j < 50; ++j)
                {
                    tagQN_REPLAY_HANDLER_S *pReplay = nullptr;
                    QN_ReplayOpenByFilePath(m_pHandle, strPath, tagQN_REPLAY_PARAM_S{}, pReplay);
                }
            });
    }
    for (std::thread &thread : vecThreads)
    {
        thread.join();
    }
    int32_t s32Whole = 0;
    std::istringstream lines(m_capture.Text());
    std::string strLine;
    while (std::getline(lines, strLine))
    {
        const size_t at = strLine.find("] file /");
        if (at != std::string::npos)
        {
            EXPECT_EQ(0u, strLine.rfind("[ERROR][QN_ReplayOpenByFilePath:", 0));
            EXPECT_EQ(strLine.size(), at + 8 + 600 + std::string(" not exist").size());
            EXPECT_EQ(std::string(600, strLine[at + 8]) + " not exist", strLine.substr(at + 8));
            ++s32Whole;
        }
    }
    EXPECT_EQ(200, s32Whole);
}
