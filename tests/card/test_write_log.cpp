// The log of a served card and the images that come from it.

#include <algorithm>
#include <fstream>
#include <set>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "card/sim/write_log.h"
#include "rig.h"
#include "support/card.h"

namespace
{

constexpr size_t BLOCK = 4096;
constexpr size_t SECTOR = 512;
constexpr uint32_t SEEDS = 200;

/// A log of four blocks, all of 'o' at first: 'a' over the first two, a flush, 'b' over the first, 'c' over the last
/// two.
class WriteLog : public ::testing::Test
{
protected:
    void SetUp() override
    {
        TEST_Touch(m_dir.strPath + "/base", std::string(4 * BLOCK, 'o'));
        Write(0, std::string(2 * BLOCK, 'a'));
        Add(WRITE_LOG_FLUSH, "");
        Write(0, std::string(BLOCK, 'b'));
        Write(2 * BLOCK, std::string(2 * BLOCK, 'c'));
    }

    void Write(size_t uOffset, const std::string &strData)
    {
        Add(static_cast<int64_t>(uOffset), strData);
    }

    void Add(int64_t s64Offset, const std::string &strData)
    {
        const WRITE_LOG_ENTRY_S stEntry = {s64Offset, 7, static_cast<uint32_t>(strData.size()), 0};
        m_strLog += std::string(reinterpret_cast<const char *>(&stEntry), sizeof(stEntry)) + strData;
    }

    bool Load()
    {
        TEST_Touch(m_dir.strPath + "/log", m_strLog);
        return m_log.Load(m_dir.strPath + "/log", m_dir.strPath + "/base");
    }

    std::string Image(size_t uEntries, WRITE_LOG_LOSS_E enLoss = WRITE_LOG_LOSS_NONE, uint32_t u32Seed = 0)
    {
        std::vector<uint8_t> vecImage;
        m_log.Build({uEntries, enLoss, u32Seed}, vecImage);
        return std::string(vecImage.begin(), vecImage.end());
    }

    /// The images of many seeds, each block as a word of its sectors' letters.
    std::set<std::vector<std::string>> Images(WRITE_LOG_LOSS_E enLoss)
    {
        std::set<std::vector<std::string>> setImages;
        for (uint32_t i = 0; i < SEEDS; i++)
        {
            const std::string strImage = Image(m_log.Entries(), enLoss, i);
            std::vector<std::string> vecBlocks(4);
            for (size_t u = 0; u < strImage.size(); u += SECTOR)
            {
                EXPECT_EQ(std::string(SECTOR, strImage[u]), strImage.substr(u, SECTOR)); // no sector is torn
                vecBlocks[u / BLOCK] += strImage[u];
            }
            setImages.insert(vecBlocks);
        }
        return setImages;
    }

    static bool IsWhole(const std::string &strBlock)
    {
        return strBlock == std::string(BLOCK / SECTOR, strBlock[0]);
    }

    TEMP_DIR m_dir;
    std::string m_strLog;
    WRITE_LOG m_log;
};

} // namespace

TEST_F(WriteLog, LeavesEveryWriteBeforeTheCutWhenNothingIsLost)
{
    ASSERT_TRUE(Load());
    ASSERT_EQ(4u, m_log.Entries());
    EXPECT_TRUE(m_log.IsFlush(1));
    EXPECT_EQ(7, m_log.Ms(3));
    const std::string strA(BLOCK, 'a');
    const std::string strO(BLOCK, 'o');
    EXPECT_EQ(std::string(BLOCK, 'b') + strA + std::string(2 * BLOCK, 'c'), Image(4));
    EXPECT_EQ(std::string(BLOCK, 'b') + strA + strO + strO, Image(3));
    EXPECT_EQ(strA + strA + strO + strO, Image(1)); // back again
    EXPECT_EQ(strO + strO + strO + strO, Image(0));
}

TEST_F(WriteLog, TearsTheLastWriteInTheMiddleOfABlock)
{
    ASSERT_TRUE(Load());
    bool bTornFirst = false;
    bool bTornSecond = false;
    for (const std::vector<std::string> &vecBlocks : Images(WRITE_LOG_LOSS_TORN))
    {
        EXPECT_EQ("bbbbbbbb", vecBlocks[0]); // the write before is there
        EXPECT_EQ("aaaaaaaa", vecBlocks[1]);
        EXPECT_TRUE(vecBlocks[3] == "oooooooo" || vecBlocks[2] == "cccccccc") << vecBlocks[2] << vecBlocks[3];
        bTornFirst = bTornFirst || !IsWhole(vecBlocks[2]);
        bTornSecond = bTornSecond || !IsWhole(vecBlocks[3]);
    }
    EXPECT_TRUE(bTornFirst && bTornSecond);
}

TEST_F(WriteLog, LosesAnyOfTheWritesBehindTheFlush)
{
    ASSERT_TRUE(Load());
    const std::vector<std::string> vecNone = {"aaaaaaaa", "aaaaaaaa", "oooooooo", "oooooooo"};
    const std::vector<std::string> vecFirst = {"bbbbbbbb", "aaaaaaaa", "oooooooo", "oooooooo"};
    const std::vector<std::string> vecSecond = {"aaaaaaaa", "aaaaaaaa", "cccccccc", "cccccccc"};
    const std::vector<std::string> vecBoth = {"bbbbbbbb", "aaaaaaaa", "cccccccc", "cccccccc"};
    EXPECT_EQ((std::set<std::vector<std::string>>{vecNone, vecFirst, vecSecond, vecBoth}),
              Images(WRITE_LOG_LOSS_WRITES));
}

TEST_F(WriteLog, LosesAndTearsAnyOfTheBlocksBehindTheFlushAndNoneBefore)
{
    ASSERT_TRUE(Load());
    std::set<std::string> setFirst;
    bool bLastAlone = false;
    for (const std::vector<std::string> &vecBlocks : Images(WRITE_LOG_LOSS_BLOCKS))
    {
        EXPECT_EQ(std::string::npos, vecBlocks[0].find('o')) << vecBlocks[0];
        EXPECT_EQ("aaaaaaaa", vecBlocks[1]);
        setFirst.insert(vecBlocks[0]);
        bLastAlone = bLastAlone || (vecBlocks[2] == "oooooooo" && vecBlocks[3] == "cccccccc");
    }
    EXPECT_EQ(1u, setFirst.count("aaaaaaaa"));
    EXPECT_EQ(1u, setFirst.count("bbbbbbbb"));
    EXPECT_GT(setFirst.size(), 2u); // torn ones
    EXPECT_TRUE(bLastAlone);
}

TEST_F(WriteLog, LosesFlushedBlocksOfACardThatLies)
{
    ASSERT_TRUE(Load());
    bool bLost = false;
    for (const std::vector<std::string> &vecBlocks : Images(WRITE_LOG_LOSS_LIES))
    {
        bLost = bLost || vecBlocks[1] == "oooooooo";
    }
    EXPECT_TRUE(bLost);
}

TEST_F(WriteLog, GivesTheSameImageForTheSameSeed)
{
    ASSERT_TRUE(Load());
    std::set<std::string> setImages;
    for (uint32_t i = 0; i < 20; i++)
    {
        const std::string strImage = Image(4, WRITE_LOG_LOSS_BLOCKS, i);
        (void)Image(2); // what is looked at in between does not matter
        EXPECT_EQ(strImage, Image(4, WRITE_LOG_LOSS_BLOCKS, i));
        setImages.insert(strImage);
    }
    EXPECT_GT(setImages.size(), 1u);
}

TEST_F(WriteLog, RefusesALogThatEndsWithinAnEntryOrGoesBeyondTheCard)
{
    m_strLog.pop_back();
    EXPECT_FALSE(Load());
    m_strLog += 'c';
    EXPECT_TRUE(Load());
    Write(3 * BLOCK + SECTOR, std::string(BLOCK, 'x'));
    EXPECT_FALSE(Load());
}

class ServedLog : public CARD_REAL
{
};

TEST_F(ServedLog, HoldsEveryWriteAndTheFlushOfASync)
{
    const TEMP_DIR dir;
    CARD_PARAM_S stParam;
    stParam.enContent = CARD_CONTENT_NO_TABLE_EXT4;
    stParam.bServed = true;
    stParam.bWhole = true;
    stParam.strLog = dir.strPath + "/log";
    CARD card(stParam);
    ASSERT_TRUE(card.Copy(dir.strPath + "/base"));
    ASSERT_TRUE(card.In());
    ASSERT_EQ(0, mkdir(card.MountDir().c_str(), 0700));
    ASSERT_EQ(0, mount(card.Device().c_str(), card.MountDir().c_str(), "ext4", 0, nullptr));
    const int s32File = open((card.MountDir() + "/file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string strData(100000, 'f');
    ASSERT_EQ(100000, write(s32File, strData.data(), strData.size()));
    ASSERT_EQ(0, fsync(s32File));
    close(s32File);
    const size_t uSynced = static_cast<size_t>(card.Server()->Control().s64Logged.load());
    ASSERT_TRUE(card.Out(CARD_PULL_WRITTEN));
    WRITE_LOG log;
    ASSERT_TRUE(log.Load(dir.strPath + "/log", dir.strPath + "/base"));
    ASSERT_LE(uSynced, log.Entries());
    bool bFlushed = false;
    for (size_t u = 0; u < uSynced; u++)
    {
        bFlushed = bFlushed || log.IsFlush(u);
    }
    EXPECT_TRUE(bFlushed);
    std::vector<uint8_t> vecImage;
    log.Build({log.Entries(), WRITE_LOG_LOSS_NONE, 0}, vecImage);
    EXPECT_TRUE(TEST_ReadFile(card.Image()) == std::string(vecImage.begin(), vecImage.end()));
    log.Build({uSynced, WRITE_LOG_LOSS_WRITES, 1}, vecImage); // what a sync has promised
    EXPECT_NE(vecImage.end(), std::search(vecImage.begin(), vecImage.end(), strData.begin(), strData.begin() + 4096));
}
