// The server of an exported image: the few requests of the FUSE protocol that one file needs.
#ifndef QUARRIN_TESTS_CARD_SIM_FUSE_SERVER_H
#define QUARRIN_TESTS_CARD_SIM_FUSE_SERVER_H

#include "fuse_image.h"

/// Serves until the mount goes, then ends the process. Writes and syncs are appended to s32Log (see write_log.h) before
/// they are answered; -1: they are not. Call it in a forked child: it allocates nothing, closes every other descriptor.
[[noreturn]] void FUSE_Serve(int s32Fuse, int s32Image, int s32Log, FUSE_CONTROL_S *pControl);

#endif
