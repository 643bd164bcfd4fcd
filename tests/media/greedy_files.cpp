// Small files of a stranger. See the header.

#include "greedy_files.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/wait.h"

using namespace libquarrin;

namespace
{

constexpr double MOST_SECONDS = 1.0; // of processor time, so that other work beside the test does not count
constexpr int64_t MOST_KIB = 128 * 1024;
constexpr size_t MOST_BYTES = 1 << 20;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool OWN_MEMORY = false; // a sanitizer takes more for itself
constexpr int32_t SLOWER = 8;
#else
constexpr bool OWN_MEMORY = true;
// An emulator takes some twenty times the processor time of the machine itself; it waits only TEST_SLOW times longer.
constexpr int32_t SLOWER = TEST_SLOW > 1 ? 5 : 1;
#endif

struct USED_S
{
    double dSeconds = 0;
    int64_t s64Kib = 0; ///< the largest address space so far
    bool bOpen = false;
};

USED_S Used()
{
    USED_S st;
    struct timespec stTime = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &stTime);
    st.dSeconds = static_cast<double>(stTime.tv_sec) + static_cast<double>(stTime.tv_nsec) / 1e9;
    const std::string strStatus = TEST_ReadFile("/proc/self/status");
    const size_t at = strStatus.find("VmPeak:");
    st.s64Kib = at != std::string::npos ? std::stoll(strStatus.substr(at + 7)) : 0;
    return st;
}

} // namespace

std::string Num(uint64_t u64Value, int32_t s32Bytes)
{
    std::string str;
    for (int32_t i = s32Bytes - 1; i >= 0; --i)
    {
        str += static_cast<char>(u64Value >> 8 * i & 0xff);
    }
    return str;
}

std::string W(uint64_t u64Value)
{
    return Num(u64Value, 4);
}

std::string Box(const std::string &strType, const std::string &strBody)
{
    return W(strBody.size() + 8) + strType + strBody;
}

std::string Table(const std::string &strType, std::initializer_list<uint64_t> list)
{
    std::string strBody = W(0);
    for (const uint64_t u64Word : list)
    {
        strBody += W(u64Word);
    }
    return Box(strType, strBody);
}

std::string Repeat(const std::string &str, size_t count)
{
    std::string strAll;
    for (size_t i = 0; i < count; ++i)
    {
        strAll += str;
    }
    return strAll;
}

std::string Track(const TRACK_S &st, uint32_t u32Id)
{
    const std::string strMatrix = W(0x10000) + Repeat(W(0), 3) + W(0x10000) + Repeat(W(0), 3) + W(0x40000000);
    const std::string strEntry = st.bAudio
                                     ? Box("sowt", std::string(6, '\0') + Num(1, 2) + W(0) + W(0) + Num(1, 2) +
                                                       Num(16, 2) + W(0) + W(8000u << 16))
                                     : Box("avc1", std::string(6, '\0') + Num(1, 2) + std::string(16, '\0') +
                                                       Num(64, 2) + Num(64, 2) + W(0x480000) + W(0x480000) + W(0) +
                                                       Num(1, 2) + std::string(32, '\0') + Num(24, 2) + Num(0xffff, 2));
    const std::string strTables =
        Box("stsd", W(0) + W(1) + strEntry) + st.strTimes + st.strRuns + st.strSizes + st.strChunks + st.strMore;
    return Box("trak",
               Box("tkhd", W(3) + W(0) + W(0) + W(u32Id) + W(0) + W(1000) + Repeat(W(0), 4) + strMatrix + W(64u << 16) +
                               W(64u << 16)) +
                   st.strEdits +
                   Box("mdia", Box("mdhd", W(0) + W(0) + W(0) + W(1000) + W(1000) + W(0)) +
                                   Box("hdlr", W(0) + W(0) + (st.bAudio ? "soun" : "vide") + std::string(13, '\0')) +
                                   Box("minf", Box("stbl", strTables))));
}

std::string Mp4(const std::string &strInMoov, const std::string &strBehind)
{
    return Box("ftyp", "isom" + W(0) + "isom") +
           Box("moov", Box("mvhd", W(0) + W(0) + W(0) + W(1000) + W(1000) + W(0x10000) + Num(0x100, 2) +
                                       std::string(10, '\0') + W(0x10000) + Repeat(W(0), 3) + W(0x10000) +
                                       Repeat(W(0), 3) + W(0x40000000) + Repeat(W(0), 6) + W(2)) +
                           strInMoov) +
           strBehind + Box("mdat", std::string(64, 'x'));
}

// An element of Matroska with a size of eight bytes.
std::string El(uint32_t u32Id, const std::string &strBody, uint64_t u64Size)
{
    int32_t s32Bytes = 4;
    while (s32Bytes > 1 && u32Id >> (8 * s32Bytes - 8) == 0)
    {
        --s32Bytes;
    }
    return Num(u32Id, s32Bytes) + Num(u64Size != 0 ? u64Size : strBody.size(), 8).replace(0, 1, 1, '\x01') + strBody;
}

// With sizes of one byte, or two.
std::string Small(uint32_t u32Id, const std::string &strBody)
{
    const std::string strLong = El(u32Id, "");
    return strLong.substr(0, strLong.size() - 8) +
           (strBody.size() < 127 ? Num(0x80 | strBody.size(), 1) : Num(0x4000 | strBody.size(), 2)) + strBody;
}

std::string MkvTrack(uint32_t u32Number, const std::string &strMore)
{
    return El(0xae, Small(0xd7, Num(u32Number, 1)) + Small(0x73c5, Num(u32Number, 1)) + Small(0x83, Num(1, 1)) +
                        Small(0x86, "V_MPEG4/ISO/AVC") +
                        Small(0xe0, Small(0xb0, Num(64, 2)) + Small(0xba, Num(64, 2))) + strMore);
}

std::string Mkv(const std::string &strInSegment, const std::string &strBehind, std::string strTracks)
{
    if (strTracks.empty())
    {
        strTracks = MkvTrack(1);
    }
    return El(0x1a45dfa3, Small(0x4282, "matroska")) +
           El(0x18538067,
              El(0x1549a966, Small(0x2ad7b1, Num(1000000, 4))) + El(0x1654ae6b, strTracks) + strInSegment +
                  El(0x1f43b675, Small(0xe7, Num(0, 1)) +
                                     Small(0xa3, Num(0x81, 1) + Num(0, 2) + Num(0x80, 1) + Num(0x000000010910, 6))) +
                  strBehind);
}

std::string Text(size_t number)
{
    std::string str = std::to_string(number);
    return std::string(6 - std::min<size_t>(6, str.size()), '0') + str;
}

void GREEDY_TEST::ExpectModest(const std::string &strBytes, QN_FILE_FMT_E enFormat, const std::string &strWhat,
                               bool bOpens)
{
    ASSERT_GE(MOST_BYTES, strBytes.size()) << strWhat;
    TEST_Touch(Path(), strBytes);
    ExpectModestFile(enFormat, strWhat, bOpens);
}

void GREEDY_TEST::ExpectModestFile(QN_FILE_FMT_E enFormat, const std::string &strWhat, bool bOpens)
{
    int as32Pipe[2] = {-1, -1};
    ASSERT_EQ(0, pipe(as32Pipe));
    fflush(nullptr);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
    {
        const USED_S stBefore = Used();
        void *pReader = FFMUXER_ReadOpen(nullptr, Path().c_str(), enFormat);
        USED_S stUsed = Used();
        stUsed.dSeconds -= stBefore.dSeconds;
        stUsed.s64Kib -= stBefore.s64Kib;
        stUsed.bOpen = pReader != nullptr;
        FFMUXER_ReadClose(pReader);
        // Not _exit: a build that counts the lines that are run writes its counters now.
        exit(write(as32Pipe[1], &stUsed, sizeof(stUsed)) == static_cast<ssize_t>(sizeof(stUsed)) ? 0 : 1);
    }
    close(as32Pipe[1]);
    USED_S stUsed;
    const ssize_t got = read(as32Pipe[0], &stUsed, sizeof(stUsed));
    close(as32Pipe[0]);
    int32_t s32Status = 0;
    EXPECT_EQ(pid, waitpid(pid, &s32Status, 0));
    ASSERT_EQ(static_cast<ssize_t>(sizeof(stUsed)), got) << strWhat << " ended with " << s32Status;
    printf("[  figures ] %s: %.2f s, %lld KiB, %s\n", strWhat.c_str(), stUsed.dSeconds,
           static_cast<long long>(stUsed.s64Kib), stUsed.bOpen ? "opened" : "refused");
    m_bOpened = stUsed.bOpen;
    EXPECT_TRUE(stUsed.bOpen || !bOpens) << strWhat;
    EXPECT_GT(MOST_SECONDS * SLOWER * TEST_SLOW, stUsed.dSeconds) << strWhat;
    EXPECT_TRUE(!OWN_MEMORY || stUsed.s64Kib < MOST_KIB) << strWhat << ": " << stUsed.s64Kib << " KiB";
}

void GREEDY_TEST::ExpectRefused(const std::string &strBytes, QN_FILE_FMT_E enFormat, const std::string &strWhat)
{
    m_bOpened = true;
    ExpectModest(strBytes, enFormat, strWhat);
    EXPECT_FALSE(m_bOpened) << strWhat;
}
