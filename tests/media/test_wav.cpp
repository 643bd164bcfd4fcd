// The WAV placeholder: shape without content.

#include <cstdlib>

#include <gtest/gtest.h>

#include "libquarrin.h"
#include "support/card.h"

using namespace libquarrin;

class Wav : public ::testing::Test
{
protected:
    void TearDown() override
    {
        free(m_pWriter); // the close leaves the one byte to nobody
    }

    TEMP_DIR m_dir;
    tagQN_RECORD_PARAM_S m_stParam{};
    void *m_pWriter = nullptr;
};

TEST_F(Wav, BothOpensGiveAWriterAndMakeNoFile)
{
    const std::string strPath = m_dir.strPath + "/clip.wav";
    m_pWriter = WAV_WriteOpen(&m_stParam, strPath.c_str());
    void *pOther = WAV_WriteOpenPreAlloc(&m_stParam, strPath.c_str());
    EXPECT_NE(nullptr, m_pWriter);
    EXPECT_NE(nullptr, pOther);
    EXPECT_NE(m_pWriter, pOther);
    EXPECT_TRUE(TEST_List(m_dir.strPath).empty());
    free(pOther);
}

TEST_F(Wav, OpensLookAtNothing)
{
    m_pWriter = WAV_WriteOpen(nullptr, nullptr);
    void *pOther = WAV_WriteOpenPreAlloc(nullptr, nullptr);
    EXPECT_NE(nullptr, m_pWriter);
    EXPECT_NE(nullptr, pOther);
    free(pOther);
}

TEST_F(Wav, FramesAndCloseAnswerZeroForAWriterAndMinusOneForNone)
{
    const unsigned char au8Frame[4] = {1, 2, 3, 4};
    m_pWriter = WAV_WriteOpen(&m_stParam, "clip.wav");
    EXPECT_EQ(0, WAV_WriteFrame(m_pWriter, au8Frame, sizeof(au8Frame), 1000, true, false));
    EXPECT_EQ(0, WAV_WriteFrame(m_pWriter, nullptr, 0, 0, false, true));
    EXPECT_EQ(-1, WAV_WriteFrame(nullptr, au8Frame, sizeof(au8Frame), 1000, true, false));
    EXPECT_EQ(0, WAV_WriteClose(m_pWriter));
    EXPECT_EQ(-1, WAV_WriteClose(nullptr));
}

TEST_F(Wav, TheCloseLeavesTheWriterAllocated)
{
    m_pWriter = WAV_WriteOpen(&m_stParam, "clip.wav");
    unsigned char *pu8 = static_cast<unsigned char *>(m_pWriter);
    *pu8 = 77;
    EXPECT_EQ(0, WAV_WriteClose(m_pWriter));
    EXPECT_EQ(77, *pu8); // a freed byte stops the test under the address sanitizer, and TearDown's free everywhere
    EXPECT_EQ(0, WAV_WriteFrame(m_pWriter, pu8, 1, 1, true, false));
}
