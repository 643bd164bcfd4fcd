// The examples on a simulated card, which is plugged and pulled with the kernel's own events.

#include <climits>
#include <csignal>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "card/sim/card.h"
#include "examples_test.h"

using namespace libquarrin;

namespace
{

class OnCard : public ExampleTest
{
protected:
    void SetUp() override
    {
        ExampleTest::SetUp();
        const std::string strWhyNot = CARD::WhyNot();
        if (!strWhyNot.empty())
        {
            GTEST_SKIP() << strWhyNot;
        }
        m_upCard = std::make_unique<CARD>();
        ASSERT_TRUE(m_upCard->IsReady());
        m_strRec = m_upCard->MountDir() + "/rec";
        m_strClip = MakeClip(QN_CODEC_H264, QN_FILE_FMT_E_TS);
    }

    // Mounts the card past the programs, to look at what is on it.
    bool MountIt() const
    {
        mkdir(m_upCard->MountDir().c_str(), 0755);
        return TEST_WaitFor(
            [this]
            { return mount(m_upCard->Partition().c_str(), m_upCard->MountDir().c_str(), "ext4", 0, nullptr) == 0; },
            EXAMPLE_WAIT_MS);
    }

    // Puts the card in, and waits until it could be mounted: a program that finds it there tries once.
    bool InAndUsable() const
    {
        const bool bUsable = m_upCard->In() && MountIt();
        m_upCard->Unmount();
        return bUsable && rmdir(m_upCard->MountDir().c_str()) == 0;
    }

    bool WaitForFinished(TOOL_PROCESS &process, size_t uFront, size_t uRear) const
    {
        const bool bDone = TEST_WaitFor(
            [&]
            { return Finished(m_strRec, "[front]").size() >= uFront && Finished(m_strRec, "[rear]").size() >= uRear; },
            EXAMPLE_WAIT_MS);
        EXPECT_TRUE(bDone) << process.Out() << process.Err();
        return bDone;
    }

    // Open files of a process that are a recording. A card that was taken off shows its paths without the mount point.
    static int32_t OpenRecordings(pid_t pid)
    {
        int32_t s32Count = 0;
        const std::string strFolder = "/proc/" + std::to_string(pid) + "/fd";
        for (const std::string &strName : TEST_List(strFolder))
        {
            char szTarget[PATH_MAX + 1] = {};
            const ssize_t sLen = readlink((strFolder + "/" + strName).c_str(), szTarget, PATH_MAX);
            s32Count += sLen > 0 && std::string(szTarget).find(".To.unknown.") != std::string::npos ? 1 : 0;
        }
        return s32Count;
    }

    std::unique_ptr<CARD> m_upCard;
    std::string m_strRec;
    std::string m_strClip;
};

} // namespace

TEST_F(OnCard, CameraGoesThroughAPullAndAReplug)
{
    const auto pCamera = Start(EXAMPLE_CAMERA, {m_upCard->Device(), m_upCard->MountDir(), m_strClip, "--split", "5"});
    ASSERT_TRUE(WaitForLine(*pCamera, "card: not there"));
    ASSERT_TRUE(m_upCard->In());
    ASSERT_TRUE(WaitForLine(*pCamera, "card: mounted"));
    ASSERT_TRUE(WaitForLine(*pCamera, "front: recording"));
    ASSERT_TRUE(WaitForLine(*pCamera, "rear: recording"));
    ASSERT_TRUE(WaitForFinished(*pCamera, 1, 1));

    ASSERT_TRUE(m_upCard->Out(CARD_PULL_WRITTEN));
    ASSERT_TRUE(WaitForLine(*pCamera, "card: not there", 2));
    ASSERT_TRUE(WaitForLine(*pCamera, "front: stopped, card gone"));
    ASSERT_TRUE(WaitForLine(*pCamera, "rear: stopped, card gone"));
    EXPECT_TRUE(m_upCard->Gone(EXAMPLE_WAIT_MS)); // nobody has a file of it open
    EXPECT_EQ(0, OpenRecordings(pCamera->Pid()));

    ASSERT_TRUE(m_upCard->In());
    ASSERT_TRUE(WaitForLine(*pCamera, "card: mounted", 2));
    ASSERT_TRUE(WaitForLine(*pCamera, "front: recording", 2));
    ASSERT_TRUE(WaitForLine(*pCamera, "rear: recording", 2));
    EXPECT_LE(2, OpenRecordings(pCamera->Pid()));
    const size_t uFront = Finished(m_strRec, "[front]").size();
    const size_t uRear = Finished(m_strRec, "[rear]").size();
    ASSERT_TRUE(WaitForFinished(*pCamera, uFront + 1, uRear + 1));
    pCamera->Signal(SIGTERM);
    EXPECT_EQ(0, pCamera->Wait()) << pCamera->Err();
    EXPECT_NE(std::string::npos, pCamera->Out().find("card: may be taken out\n"));
    EXPECT_FALSE(TEST_Exists(m_upCard->MountDir())); // unmounted, and its directory removed

    ASSERT_TRUE(MountIt());
    const bool bSomeLost = pCamera->Out().find("frames are lost") != std::string::npos; // the machine stood still
    size_t uCutOff = 0;
    for (const std::string &strName : TEST_List(m_strRec))
    {
        const bool bFinished = strName.find(".To.unknown.") == std::string::npos;
        uCutOff += bFinished ? 0 : 1;
        EXPECT_TRUE(!bFinished || ExpectWhole(m_strRec + "/" + strName, bSomeLost) > 0) << strName;
    }
    EXPECT_LE(uCutOff, 4u); // those that were being written when the card went, or finished after a split
}

TEST_F(OnCard, CameraResumesAfterAPullThatIsAnnouncedTwice)
{
    const auto pCamera = Start(EXAMPLE_CAMERA, {m_upCard->Device(), m_upCard->MountDir(), m_strClip});
    ASSERT_TRUE(WaitForLine(*pCamera, "card: not there"));
    ASSERT_TRUE(m_upCard->In());
    ASSERT_TRUE(WaitForLine(*pCamera, "front: recording"));
    ASSERT_TRUE(WaitForLine(*pCamera, "rear: recording"));
    ASSERT_TRUE(m_upCard->Announce("remove"));
    ASSERT_TRUE(WaitForLine(*pCamera, "front: stopped, card gone"));
    ASSERT_TRUE(WaitForLine(*pCamera, "rear: stopped, card gone"));
    ASSERT_TRUE(m_upCard->Announce("remove")); // marks the stopped sessions
    ASSERT_TRUE(m_upCard->Announce("add"));
    ASSERT_TRUE(WaitForLine(*pCamera, "front: recording", 2));
    ASSERT_TRUE(WaitForLine(*pCamera, "rear: recording", 2));
    pCamera->Signal(SIGTERM);
    EXPECT_EQ(0, pCamera->Wait());
}

TEST_F(OnCard, CameraSaysThatAWriteProtectedCardTakesNoFile)
{
    CARD_PARAM_S stParam;
    stParam.bReadOnly = true;
    CARD card(stParam);
    const auto pCamera = Start(EXAMPLE_CAMERA, {card.Device(), card.MountDir(), m_strClip});
    ASSERT_TRUE(WaitForLine(*pCamera, "card: not there"));
    ASSERT_TRUE(card.In());
    ASSERT_TRUE(WaitForLine(*pCamera, "card: mounted"));
    ASSERT_TRUE(WaitForLine(*pCamera, "front: the card takes no file (result 7): write-protected or damaged?"));
    pCamera->Signal(SIGTERM);
    EXPECT_EQ(0, pCamera->Wait());
    EXPECT_FALSE(TEST_Exists(card.MountDir()));
}

TEST_F(OnCard, CameraEndsWithoutACard)
{
    const auto pCamera = Start(EXAMPLE_CAMERA, {m_upCard->Device(), m_upCard->MountDir(), m_strClip});
    ASSERT_TRUE(WaitForLine(*pCamera, "card: not there"));
    pCamera->Signal(SIGINT);
    EXPECT_EQ(0, pCamera->Wait());
    EXPECT_FALSE(TEST_Exists(m_upCard->MountDir()));
}

TEST_F(OnCard, PlayerSaysThatTheCardWasPulled)
{
    ASSERT_TRUE(m_upCard->In());
    ASSERT_TRUE(MountIt());
    ASSERT_EQ(0, mkdir(m_strRec.c_str(), 0755));
    const std::string strName = m_strClip.substr(m_strClip.rfind('/') + 1);
    TEST_Touch(m_strRec + "/" + strName, TEST_ReadFile(m_strClip));
    m_upCard->Unmount();
    ASSERT_EQ(0, rmdir(m_upCard->MountDir().c_str()));

    const TOOL_RESULT_S stWhole =
        Run(EXAMPLE_PLAYER, {m_upCard->Device(), m_upCard->MountDir(), "play", strName, "--fast"});
    EXPECT_EQ(0, stWhole.s32Status) << stWhole.strErr;
    EXPECT_NE(std::string::npos, stWhole.strErr.find("150 frames played")) << stWhole.strErr;
    EXPECT_FALSE(TEST_Exists(m_upCard->MountDir())); // the player mounts and unmounts

    const auto pPlayer = Start(EXAMPLE_PLAYER, {m_upCard->Device(), m_upCard->MountDir(), "play", strName});
    ASSERT_TRUE(TEST_WaitFor([&] { return pPlayer->Out().size() > 100; }, EXAMPLE_WAIT_MS)) << pPlayer->Err();
    ASSERT_TRUE(m_upCard->Out(CARD_PULL_WRITTEN));
    EXPECT_EQ(1, pPlayer->Wait());
    EXPECT_NE(std::string::npos, pPlayer->Err().find("the card was pulled")) << pPlayer->Err();
    EXPECT_TRUE(m_upCard->Gone(EXAMPLE_WAIT_MS));
}

TEST_F(OnCard, OwnLayerMountsAndUnmounts)
{
    ASSERT_TRUE(InAndUsable());
    const std::string &strMount = m_upCard->MountDir();
    const TOOL_RESULT_S stResult = Run(EXAMPLE_OWN_LAYER, {m_upCard->Device(), strMount, m_strClip});
    EXPECT_EQ(0, stResult.s32Status) << stResult.strErr;
    const std::string strMounted =
        "result 0 of: mkdir -p " + strMount + "; mount " + m_upCard->Partition() + " " + strMount + "\n";
    EXPECT_NE(std::string::npos, stResult.strErr.find(strMounted)) << stResult.strErr;
    EXPECT_NE(std::string::npos,
              stResult.strErr.find("result 0 of: umount " + strMount + "; rm -rf " + strMount + "\n"))
        << stResult.strErr;
    EXPECT_FALSE(TEST_Exists(strMount));
    ASSERT_TRUE(MountIt());
    const std::vector<std::string> vecNames = Finished(m_strRec);
    ASSERT_EQ(1u, vecNames.size());
    EXPECT_EQ(CLIP_FRAMES, ExpectWhole(m_strRec + "/" + vecNames[0]));
}

TEST_F(OnCard, HostsMountTheCardThoughAPowerCutLeftItsDirectoryBehind)
{
    ASSERT_TRUE(InAndUsable());
    const std::string &strMount = m_upCard->MountDir();
    for (const char *pszProgram : {EXAMPLE_HOST, EXAMPLE_OWN_LAYER})
    {
        ASSERT_EQ(0, mkdir(strMount.c_str(), 0755));
        ASSERT_EQ(0, mkdir(m_strRec.c_str(), 0755));
        const TOOL_RESULT_S stResult = Run(pszProgram, {m_upCard->Device(), strMount, m_strClip});
        EXPECT_EQ(0, stResult.s32Status) << stResult.strErr;
        EXPECT_FALSE(TEST_Exists(strMount));
    }
    ASSERT_TRUE(MountIt());
    EXPECT_EQ(2u, Finished(m_strRec).size());
}

TEST_F(OnCard, OwnLayerGoesOnWithACardThatIsMountedAndAnnouncedAgain)
{
    ASSERT_TRUE(m_upCard->In() && MountIt()); // as a program leaves it that was killed
    const std::string &strMount = m_upCard->MountDir();
    const auto pOwn = Start(EXAMPLE_OWN_LAYER, {m_upCard->Device(), strMount, m_strClip});
    ASSERT_TRUE(TEST_WaitFor([&] { return OpenRecordings(pOwn->Pid()) == 1; }, EXAMPLE_WAIT_MS)) << pOwn->Err();
    ASSERT_TRUE(m_upCard->Announce("add"));
    EXPECT_EQ(0, pOwn->Wait());
    EXPECT_NE(std::string::npos, pOwn->Err().find("result 0 of: mkdir -p " + strMount + "; mount ")) << pOwn->Err();
    EXPECT_FALSE(TEST_Exists(strMount));
    ASSERT_TRUE(MountIt());
    ASSERT_EQ(1u, Finished(m_strRec).size());
    EXPECT_EQ(CLIP_FRAMES, ExpectWhole(m_strRec + "/" + Finished(m_strRec)[0]));
}

TEST_F(OnCard, OwnLayerTakesAPulledCardOffThoughItsFileIsOpen)
{
    ASSERT_TRUE(InAndUsable());
    const std::string &strMount = m_upCard->MountDir();
    const auto pOwn = Start(EXAMPLE_OWN_LAYER, {m_upCard->Device(), strMount, m_strClip});
    ASSERT_TRUE(TEST_WaitFor([&] { return OpenRecordings(pOwn->Pid()) == 1; }, EXAMPLE_WAIT_MS)) << pOwn->Err();
    ASSERT_TRUE(m_upCard->Out(CARD_PULL_BARE)); // the mount is left to the layer
    EXPECT_EQ(1, pOwn->Wait());
    EXPECT_NE(std::string::npos, pOwn->Err().find("own_layer: broke off")) << pOwn->Err();
    EXPECT_NE(std::string::npos, pOwn->Err().find("result 0 of: umount " + strMount)) << pOwn->Err();
    EXPECT_FALSE(TEST_Exists(strMount));
    EXPECT_TRUE(m_upCard->Gone(EXAMPLE_WAIT_MS));
}
