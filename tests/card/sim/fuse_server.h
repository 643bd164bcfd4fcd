// The server of an exported image: the few requests of the FUSE protocol that one file needs.
#ifndef QUARRIN_TESTS_CARD_SIM_FUSE_SERVER_H
#define QUARRIN_TESTS_CARD_SIM_FUSE_SERVER_H

#include "fuse_image.h"

/// Serves until the mount goes, then ends the process. Call it in a forked child: it allocates nothing, closes every
/// descriptor but the two.
[[noreturn]] void FUSE_Serve(int s32Fuse, int s32Image, FUSE_CONTROL_S *pControl);

#endif
