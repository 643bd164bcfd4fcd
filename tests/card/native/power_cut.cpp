// power_cut DIR: shuts down the ext4 file system that DIR lies on, without writing back what is on its way.
//
// For tests of a build for another machine. Their emulator does not know the call; this program is built for the
// machine that the emulator runs on, and makes it for them.

#include <cstdint>

#include <fcntl.h>
#include <sys/ioctl.h>

#include "../sim/ext4_shutdown.h"

int main(int argc, char **argv)
{
    const int s32Dir = argc == 2 ? open(argv[1], O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
    uint32_t u32How = EXT4_NO_LOG_FLUSH;
    return s32Dir >= 0 && ioctl(s32Dir, EXT4_SHUTDOWN, &u32How) == 0 ? 0 : 1;
}
