// The server process. See the header, and linux/fuse.h for the protocol.

#include "fuse_server.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "write_log.h"

constexpr uint64_t NODE_DIR = FUSE_ROOT_ID;
constexpr uint64_t NODE_CARD = 2;
constexpr uint32_t MAX_WRITE = 128 * 1024;
constexpr size_t BUFFER_BYTES = MAX_WRITE + 4096; // a request's headers before its data
constexpr uint64_t LONG_SECONDS = 3600;           // nobody but this server changes the file

/// The process's own; a child that was forked from threads may not allocate.
struct SERVER_S
{
    int s32Fuse;
    int s32Image;
    int s32Log; ///< -1: none
    FUSE_CONTROL_S *pControl;
    alignas(16) char acRequest[BUFFER_BYTES];
    alignas(16) char acData[MAX_WRITE];
};

static SERVER_S s_stServer;

static const fuse_in_header &Header()
{
    return *reinterpret_cast<const fuse_in_header *>(s_stServer.acRequest);
}

template <typename BODY> static const BODY &Body()
{
    return *reinterpret_cast<const BODY *>(s_stServer.acRequest + sizeof(fuse_in_header));
}

// s32Errno is 0 or positive. An answer that nobody waits for any more is refused by the kernel, which is no matter.
static void Answer(int32_t s32Errno, const void *pBody, size_t uBytes)
{
    const size_t uBody = s32Errno == 0 ? uBytes : 0;
    fuse_out_header stOut = {};
    stOut.len = static_cast<uint32_t>(sizeof(stOut) + uBody);
    stOut.error = -s32Errno;
    stOut.unique = Header().unique;
    struct iovec astParts[2] = {{&stOut, sizeof(stOut)}, {const_cast<void *>(pBody), uBody}};
    (void)!writev(s_stServer.s32Fuse, astParts, uBody > 0 ? 2 : 1);
}

static fuse_attr Attributes(uint64_t u64Node)
{
    fuse_attr stAttr = {};
    stAttr.ino = u64Node;
    stAttr.nlink = 1;
    stAttr.mode = S_IFDIR | 0700;
    stAttr.blksize = 4096;
    struct stat stStat = {};
    if (u64Node == NODE_CARD && fstat(s_stServer.s32Image, &stStat) == 0)
    {
        stAttr.mode = S_IFREG | 0600;
        stAttr.size = static_cast<uint64_t>(stStat.st_size);
        stAttr.blocks = static_cast<uint64_t>(stStat.st_blocks);
    }
    return stAttr;
}

static void Init()
{
    const fuse_init_in &stIn = Body<fuse_init_in>();
    fuse_init_out stOut = {};
    stOut.major = FUSE_KERNEL_VERSION;
    stOut.minor = std::min<uint32_t>(stIn.minor, 31); // what is answered here has this form
    stOut.max_readahead = stIn.max_readahead;
    stOut.flags = stIn.flags & (FUSE_ASYNC_READ | FUSE_BIG_WRITES);
    stOut.max_background = 16;
    stOut.congestion_threshold = 12;
    stOut.max_write = MAX_WRITE;
    stOut.time_gran = 1;
    Answer(0, &stOut, sizeof(stOut));
}

static void Lookup()
{
    if (strcmp(s_stServer.acRequest + sizeof(fuse_in_header), "card") != 0)
    {
        Answer(ENOENT, nullptr, 0);
        return;
    }
    fuse_entry_out stOut = {};
    stOut.nodeid = NODE_CARD;
    stOut.entry_valid = LONG_SECONDS;
    stOut.attr_valid = LONG_SECONDS;
    stOut.attr = Attributes(NODE_CARD);
    Answer(0, &stOut, sizeof(stOut));
}

static void GetAttributes()
{
    fuse_attr_out stOut = {};
    stOut.attr_valid = LONG_SECONDS;
    stOut.attr = Attributes(Header().nodeid == NODE_CARD ? NODE_CARD : NODE_DIR);
    Answer(0, &stOut, sizeof(stOut));
}

static void Open()
{
    fuse_open_out stOut = {};
    stOut.open_flags = FOPEN_DIRECT_IO; // no cache in between: a dead server is noticed at once
    Answer(0, &stOut, sizeof(stOut));
}

static void Delay()
{
    const int32_t s32Ms = s_stServer.pControl->s32DelayMs;
    struct timespec stRest = {s32Ms / 1000, static_cast<long>(s32Ms % 1000) * 1000000};
    while (s32Ms > 0 && nanosleep(&stRest, &stRest) != 0 && errno == EINTR)
    {
    }
}

// The errno that a write or sync has to fail with; 0 when it succeeds.
static int32_t WriteFault(bool bCounts)
{
    FUSE_CONTROL_S &stControl = *s_stServer.pControl;
    const int64_t s64Left = stControl.s64WritesLeft;
    if (s64Left < 0)
    {
        return 0;
    }
    if (s64Left > 0)
    {
        stControl.s64WritesLeft = s64Left - (bCounts ? 1 : 0);
        return 0;
    }
    stControl.s64Failures += 1;
    return stControl.s32WriteErrno;
}

static void Read()
{
    const fuse_read_in &stIn = Body<fuse_read_in>();
    s_stServer.pControl->s64Reads += 1;
    const int32_t s32Fault = s_stServer.pControl->s32ReadErrno;
    if (s32Fault != 0)
    {
        s_stServer.pControl->s64Failures += 1;
        Answer(s32Fault, nullptr, 0);
        return;
    }
    const ssize_t sRead =
        pread(s_stServer.s32Image, s_stServer.acData, std::min(stIn.size, MAX_WRITE), static_cast<off_t>(stIn.offset));
    Answer(sRead < 0 ? errno : 0, s_stServer.acData, sRead < 0 ? 0 : static_cast<size_t>(sRead));
}

// Before the answer: whoever waits for it reads a count that has this one in it. A log that has no room left is an
// error of the card's, so that the test sees it.
static int32_t Note(int64_t s64Offset, const char *pcData, uint32_t u32Bytes)
{
    if (s_stServer.s32Log < 0)
    {
        return 0;
    }
    struct timespec stNow = {};
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    WRITE_LOG_ENTRY_S stEntry = {};
    stEntry.s64Offset = s64Offset;
    stEntry.s64Ms = static_cast<int64_t>(stNow.tv_sec) * 1000 + stNow.tv_nsec / 1000000;
    stEntry.u32Bytes = u32Bytes;
    struct iovec astParts[2] = {{&stEntry, sizeof(stEntry)}, {const_cast<char *>(pcData), u32Bytes}};
    if (writev(s_stServer.s32Log, astParts, u32Bytes > 0 ? 2 : 1) != static_cast<ssize_t>(sizeof(stEntry) + u32Bytes))
    {
        return EIO;
    }
    s_stServer.pControl->s64Logged += 1;
    return 0;
}

static void Write()
{
    const fuse_write_in &stIn = Body<fuse_write_in>();
    s_stServer.pControl->s64Writes += 1;
    Delay();
    const char *pcData = s_stServer.acRequest + sizeof(fuse_in_header) + sizeof(fuse_write_in);
    int32_t s32Errno = WriteFault(true);
    ssize_t sWritten = 0;
    s32Errno = s32Errno != 0 ? s32Errno : Note(static_cast<int64_t>(stIn.offset), pcData, stIn.size);
    if (s32Errno == 0)
    {
        sWritten = pwrite(s_stServer.s32Image, pcData, stIn.size, static_cast<off_t>(stIn.offset));
        s32Errno = sWritten < 0 ? errno : 0;
    }
    fuse_write_out stOut = {};
    stOut.size = static_cast<uint32_t>(sWritten < 0 ? 0 : sWritten);
    Answer(s32Errno, &stOut, sizeof(stOut));
}

static void Sync()
{
    Delay();
    const int32_t s32Fault = WriteFault(false);
    // The image is a file of the test's machine: it stays without a sync.
    Answer(s32Fault != 0 ? s32Fault : Note(WRITE_LOG_FLUSH, nullptr, 0), nullptr, 0);
}

static void Statfs()
{
    fuse_statfs_out stOut = {};
    stOut.st.bsize = 4096;
    stOut.st.namelen = 255;
    Answer(0, &stOut, sizeof(stOut));
}

static void Handle()
{
    switch (Header().opcode)
    {
    case FUSE_INIT:
        Init();
        break;
    case FUSE_LOOKUP:
        Lookup();
        break;
    case FUSE_GETATTR:
    case FUSE_SETATTR:
        GetAttributes();
        break;
    case FUSE_OPEN:
    case FUSE_OPENDIR:
        Open();
        break;
    case FUSE_READ:
        Read();
        break;
    case FUSE_WRITE:
        Write();
        break;
    case FUSE_FSYNC:
        Sync();
        break;
    case FUSE_STATFS:
        Statfs();
        break;
    case FUSE_FLUSH:
    case FUSE_RELEASE:
    case FUSE_RELEASEDIR:
    case FUSE_READDIR: // an empty folder: the one name is known
    case FUSE_DESTROY:
        Answer(0, nullptr, 0);
        break;
    case FUSE_FORGET:
    case FUSE_BATCH_FORGET:
    case FUSE_INTERRUPT:
        break; // have no answer
    default:
        Answer(ENOSYS, nullptr, 0);
        break;
    }
}

// Keeps the three descriptors, as 3, 4 and 5, and the standard ones.
static void CloseOthers(int s32Fuse, int s32Image, int s32Log)
{
    constexpr int FIRST_FREE = 64;
    const int s32FuseCopy = fcntl(s32Fuse, F_DUPFD, FIRST_FREE);
    const int s32ImageCopy = fcntl(s32Image, F_DUPFD, FIRST_FREE);
    const int s32LogCopy = s32Log < 0 ? -1 : fcntl(s32Log, F_DUPFD, FIRST_FREE);
    s_stServer.s32Fuse = dup2(s32FuseCopy, 3);
    s_stServer.s32Image = dup2(s32ImageCopy, 4);
    s_stServer.s32Log = s32LogCopy < 0 ? -1 : dup2(s32LogCopy, 5);
    syscall(SYS_close_range, s_stServer.s32Log < 0 ? 5u : 6u, ~0u, 0u);
}

void FUSE_Serve(int s32Fuse, int s32Image, int s32Log, FUSE_CONTROL_S *pControl)
{
    prctl(PR_SET_NAME, "card-server");
    signal(SIGINT, SIG_IGN); // the program decides when the card goes
    alarm(0);
    CloseOthers(s32Fuse, s32Image, s32Log);
    s_stServer.pControl = pControl;
    for (;;)
    {
        const ssize_t sBytes = read(s_stServer.s32Fuse, s_stServer.acRequest, BUFFER_BYTES);
        if (sBytes >= static_cast<ssize_t>(sizeof(fuse_in_header)))
        {
            Handle();
        }
        else if (sBytes >= 0 || (errno != EINTR && errno != ENOENT && errno != EAGAIN))
        {
            _exit(0); // the mount is gone
        }
    }
}
