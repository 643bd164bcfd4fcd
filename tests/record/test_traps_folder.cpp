// The folder of a card from a stranger leads to the host's own: nothing is recorded there.

#include "session_fixture.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace libquarrin;

class TrapsFolder : public SESSION_TEST
{
protected:
    void SetUp() override
    {
        SESSION_TEST::SetUp();
        m_strHost = m_dir.strPath + "/host";
        ASSERT_EQ(0, mkdir(m_strHost.c_str(), 0755));
    }

    /// Puts a link to the host's folder in the place of volume 0's.
    void LinkToHost()
    {
        ASSERT_EQ(0, rename(Folder(0).c_str(), (Folder(0) + ".away").c_str()));
        ASSERT_EQ(0, symlink(m_strHost.c_str(), Folder(0).c_str()));
    }

    void PutBack()
    {
        ASSERT_EQ(0, unlink(Folder(0).c_str()));
        ASSERT_EQ(0, rename((Folder(0) + ".away").c_str(), Folder(0).c_str()));
    }

    std::string m_strHost;
};

TEST_F(TrapsFolder, AStartAnswers7AndLeavesNothing)
{
    ASSERT_NO_FATAL_FAILURE(LinkToHost());
    tagQN_RECORD_HANDLER_S *pSession = Make();
    for (int32_t i = 0; i < 2; ++i)
    {
        EXPECT_EQ(7u, QN_RecordStart(pSession, "t"));
        EXPECT_EQ(QN_RECORD_STATE_IDLE, pSession->enRecordState.load());
    }
    EXPECT_TRUE(TEST_List(m_strHost).empty());
    EXPECT_TRUE(FAKE_MEDIA_Writers().empty());
    EXPECT_TRUE(FAKE_PLATFORM_Logged("folder " + Folder(0) + " is refused: its name goes through a symbolic link"));
    ASSERT_NO_FATAL_FAILURE(PutBack());
    EXPECT_EQ(0u, QN_RecordStart(pSession, "t")) << "no name is kept";
    EXPECT_EQ(1u, Names().size());
}

TEST_F(TrapsFolder, ASplitOpensNoFileBehindALink)
{
    tagQN_RECORD_HANDLER_S *pSession = Run(60, "t");
    ASSERT_NO_FATAL_FAILURE(LinkToHost());
    (void)SplitOff(pSession);
    EXPECT_EQ(nullptr, pSession->pWriter) << "as when the file cannot be opened";
    EXPECT_EQ(0u, Video(pSession, "lost", false));
    ASSERT_TRUE(WaitForIdle());
    EXPECT_TRUE(TEST_List(m_strHost).empty());

    ASSERT_NO_FATAL_FAILURE(PutBack());
    (void)SplitOff(pSession);
    ASSERT_TRUE(WaitForIdle());
    EXPECT_EQ("begin\nnext", TEST_ReadFile(pSession->strFilePath)) << "the next file is there again";
}
