#include "recordings.h"

#include <csignal>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

static const char *const s_pszPicture = "-f lavfi -i testsrc=size=160x120:rate=";
static const char *const s_pszTone = " -f lavfi -i sine=frequency=440:sample_rate=44100";
static const char *const s_pszH264 = " -c:v libx264 -preset ultrafast -pix_fmt yuv420p -g 25 -bf 0 -c:a aac -shortest ";

static constexpr int32_t SIX_SECONDS = 6 * 25 + 6 * 48000 / 1024; // frames of the generated clip, pictures and sound

std::vector<std::string> RECORDING_S::Names() const
{
    return TEST_List(strStorage + "/rec");
}

std::string RECORDING_S::Path(size_t uNo) const
{
    const std::vector<std::string> vecNames = Names();
    return uNo < vecNames.size() ? strStorage + "/rec/" + vecNames[uNo] : strStorage + "/rec/none";
}

RECORDINGS &RECORDINGS::Get()
{
    static RECORDINGS s_recordings;
    return s_recordings;
}

std::string RECORDINGS::Media(const std::string &strName) const
{
    return m_pDir->strPath + "/" + strName;
}

std::string RECORDINGS::NewFolder()
{
    const std::string strFolder = m_pDir->strPath + "/folder" + std::to_string(m_s32Folders++);
    EXPECT_EQ(0, mkdir(strFolder.c_str(), 0777));
    return strFolder;
}

void RECORDINGS::MakeMedia()
{
    const std::string strSources = std::string(s_pszPicture) + "25" + s_pszTone;
    TOOL_RunFfmpeg(strSources + s_pszH264 + "-t 6 " + Media("clip.mp4"));
    TOOL_RunFfmpeg("-i " + Media("clip.mp4") + " -c copy " + Media("clip.ts"));
    TOOL_RunFfmpeg("-stream_loop 49 -i " + Media("clip.ts") + " -c copy " + Media("long.ts"));
    TOOL_RunFfmpeg(strSources +
                   " -c:v libx264 -preset ultrafast -pix_fmt yuv420p -g 25 -bf 2 -b_strategy 0 -c:a aac "
                   "-t 6 " +
                   Media("bframes.mp4"));
    TOOL_RunFfmpeg(std::string(s_pszPicture) + "30000/1001" + s_pszTone + s_pszH264 + "-t 6 " + Media("ntsc.mp4"));
    TOOL_RunFfmpeg(strSources +
                   " -c:v libx265 -preset ultrafast -pix_fmt yuv420p -x265-params "
                   "log-level=none:keyint=25:bframes=0 -c:a aac -shortest -t 6 " +
                   Media("clip265.mkv"));
    TOOL_RunFfmpeg(std::string("-f lavfi -i sine=frequency=440:sample_rate=44100 -c:a aac -t 6 ") + Media("tone.m4a"));
    TOOL_RunFfmpeg(std::string(s_pszPicture) + "25 -t 1 -c:v mpeg2video " + Media("mpeg2.mpg"));
}

RECORDING_S &RECORDINGS::Start(const std::string &strName, const std::string &strInput, const std::string &strOptions,
                               TOOL_START_S stStart)
{
    std::unique_ptr<RECORDING_S> pRecording = std::make_unique<RECORDING_S>();
    pRecording->strStorage = m_pDir->strPath + "/" + strName;
    stStart.vecArgs = TOOL_Parts(strOptions, ' ');
    stStart.vecArgs.insert(stStart.vecArgs.begin(), {"record", strInput, "--storage", pRecording->strStorage});
    pRecording->pTool = std::make_unique<TOOL_PROCESS>(stStart);
    if (TEST_SLOW > 1)
    {
        // A program that is being loaded leaves the others no room to keep real time: one after another.
        (void)pRecording->pTool->WaitForErr(" frames  "); // or the end of one that must fail
    }
    m_vecRecordings.emplace_back(strName, std::move(pRecording));
    return *m_vecRecordings.back().second;
}

/// The generated clip, six seconds of it.
void RECORDINGS::StartTest(const std::string &strName, const std::string &strOptions)
{
    if (TEST_SLOW == 1)
    {
        Start(strName, "test", strOptions + " --duration 6");
        return;
    }
    // An encoder may be far behind real time: it goes on until there is as much film.
    TOOL_PROCESS &tool = *Start(strName, "test", strOptions).pTool;
    EXPECT_TRUE(tool.WaitForProgress(6, SIX_SECONDS)) << tool.Err();
    tool.Signal(SIGINT);
    tool.Wait();
}

/// A port of the loopback address that nobody uses.
static uint16_t FreePort()
{
    const int s32Socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in stAddress = {};
    socklen_t uLen = sizeof(stAddress);
    stAddress.sin_family = AF_INET;
    stAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, bind(s32Socket, reinterpret_cast<sockaddr *>(&stAddress), sizeof(stAddress)));
    EXPECT_EQ(0, getsockname(s32Socket, reinterpret_cast<sockaddr *>(&stAddress), &uLen));
    close(s32Socket);
    return ntohs(stAddress.sin_port);
}

/// Somebody listens on the port. Looked up, not tried out: the sender takes one caller only.
static bool IsListening(uint16_t u16Port)
{
    char acEntry[32];
    snprintf(acEntry, sizeof(acEntry), ":%04X 00000000:0000 0A", u16Port);
    return TEST_ReadFile("/proc/net/tcp").find(acEntry) != std::string::npos;
}

void RECORDINGS::StartLive()
{
    const uint16_t u16Port = FreePort();
    const std::string strAddress = "tcp://127.0.0.1:" + std::to_string(u16Port);
    TOOL_START_S stSender;
    stSender.strProgram = "ffmpeg";
    stSender.vecArgs = TOOL_Parts(
        "-v error -nostdin -re -i " + Media("long.ts") + " -c copy -t 12 -f mpegts " + strAddress + "?listen=1", ' ');
    m_pSender = std::make_unique<TOOL_PROCESS>(stSender);
    EXPECT_TRUE(TEST_WaitFor([u16Port] { return IsListening(u16Port); }, 60000));
    Start("live", strAddress, "--format mp4 --duration 7");
}

void RECORDINGS::Begin()
{
    m_pDir = std::make_unique<TEMP_DIR>();
    MakeMedia();
    const std::string strLong = Media("long.ts");
    TOOL_START_S stLimited;
    stLimited.u64LargestFile = 30000;
    Start("stuck", strLong, "--format ts", stLimited);
    // Its files are measured in pictures, so what it records has to come in real time.
    Start("split", TEST_SLOW == 1 ? "test" : strLong, "--split 5 --duration 11 --name door");
    StartLive();
    TOOL_START_S stTerminal;
    stTerminal.bTerminal = true;
    Start("terminal", strLong, "--format ts --duration 6", stTerminal);
    Start("full", strLong, "--quota 20K --no-auto-delete");
    Start("gone", strLong, "--format ts");
    Start("int", strLong, "--format mp4");
    Start("term", strLong, "--format mov");
    Start("hup", strLong, "--format mkv");
    Start("early", strLong, "--duration 2");
    StartTest("test265", "--codec h265 --format mkv");
    StartTest("testmp4", "--format mp4");
    Start("file.mkv", Media("clip.mp4"), "--format mkv");
    Start("file.ts", Media("clip.mp4"), "--format ts");
    Start("durable", Media("clip.mp4"), "--format ts --durable 1");
    Start("file.mp4", Media("clip.ts"), "--format mp4");
    Start("file.mov", Media("clip.mp4"), "--format mov");
    Start("file265.mkv", Media("clip265.mkv"), "--format mkv");
    Start("file265.ts", Media("clip265.mkv"), "--format ts");
    Start("ntsc", Media("ntsc.mp4"), "--format mp4");
    Start("tone", Media("tone.m4a"), "--format mkv");
    Start("transcode", Media("bframes.mp4"), "--transcode");
    Start("odd $(touch pwned) 'place", Media("clip.ts"), "--format ts");
    TOOL_START_S stPlain;
    stPlain.bPlainUser = true;
    Start("plain", Media("clip.ts"), "--format ts --verbose", stPlain);
}

void RECORDINGS::End()
{
    m_vecRecordings.clear();
    m_pSender.reset();
    m_pDir.reset();
}

RECORDING_S &RECORDINGS::Of(const std::string &strName)
{
    for (auto &stEntry : m_vecRecordings)
    {
        if (stEntry.first == strName)
        {
            return *stEntry.second;
        }
    }
    ADD_FAILURE() << "no recording " << strName;
    return *m_vecRecordings.front().second;
}

std::vector<TEST_PACKET_S> VideoOf(const TEST_MEDIA_S &stMedia)
{
    return stMedia.Of(stMedia.VideoStream());
}

std::vector<TEST_PACKET_S> AudioOf(const TEST_MEDIA_S &stMedia)
{
    return stMedia.Of(stMedia.AudioStream());
}

static int64_t Microseconds(const TEST_MEDIA_S &stMedia, const TEST_PACKET_S &stPacket)
{
    const TEST_MEDIA_STREAM_S &stStream = stMedia.vecStreams[static_cast<size_t>(stPacket.s32Stream)];
    return stPacket.s64Pts * 1000000 * stStream.s32TimeBaseNum / stStream.s32TimeBaseDen;
}

static void ExpectSameStream(const TEST_MEDIA_S &stFrom, const std::vector<TEST_PACKET_S> &vecFrom,
                             const TEST_MEDIA_S &stTo, const std::vector<TEST_PACKET_S> &vecTo, int64_t s64Tolerance)
{
    ASSERT_EQ(vecFrom.size(), vecTo.size());
    for (size_t u = 0; u < vecFrom.size(); u++)
    {
        const int64_t s64From = Microseconds(stFrom, vecFrom[u]) - Microseconds(stFrom, vecFrom[0]);
        const int64_t s64To = Microseconds(stTo, vecTo[u]) - Microseconds(stTo, vecTo[0]);
        EXPECT_NEAR(static_cast<double>(s64From), static_cast<double>(s64To), static_cast<double>(s64Tolerance))
            << "packet " << u;
        EXPECT_EQ(vecFrom[u].bKey, vecTo[u].bKey) << "packet " << u;
    }
}

void ExpectSameFrames(const TEST_MEDIA_S &stFrom, const TEST_MEDIA_S &stTo, int64_t s64ToleranceUs)
{
    ASSERT_TRUE(stFrom.bOpened);
    ASSERT_TRUE(stTo.bOpened);
    const std::vector<TEST_PACKET_S> vecVideo = VideoOf(stFrom);
    {
        SCOPED_TRACE("video");
        ExpectSameStream(stFrom, vecVideo, stTo, VideoOf(stTo), s64ToleranceUs);
    }
    std::vector<TEST_PACKET_S> vecAudio;
    for (const TEST_PACKET_S &stPacket : AudioOf(stFrom))
    {
        const bool bBefore = !vecVideo.empty() && Microseconds(stFrom, stPacket) < Microseconds(stFrom, vecVideo[0]);
        if (!bBefore)
        {
            vecAudio.push_back(stPacket);
        }
    }
    SCOPED_TRACE("audio");
    ExpectSameStream(stFrom, vecAudio, stTo, AudioOf(stTo), s64ToleranceUs);
}

class RECORDINGS_ENVIRONMENT : public ::testing::Environment
{
public:
    void SetUp() override
    {
        RECORDINGS::Get().Begin();
    }
    void TearDown() override
    {
        RECORDINGS::Get().End();
    }
};

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new RECORDINGS_ENVIRONMENT); // the framework owns it
    return RUN_ALL_TESTS();
}
