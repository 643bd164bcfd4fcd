// libquarrin: records encoded audio and video onto a removable card, and plays it back.
//
// The one header that a host includes. Everything lives in the namespace libquarrin, except the thread utility and the
// four elementary-stream helpers, which are global.
#ifndef LIBQUARRIN_H
#define LIBQUARRIN_H

#include "bu_platform.h"
#include "util_thread/util_thread.h"

#include "libquarrin/types.h"

#include "libquarrin/params.h"

#include "libquarrin/catalogue.h"
#include "libquarrin/core.h"
#include "libquarrin/events.h"
#include "libquarrin/handle.h"
#include "libquarrin/hotplug.h"
#include "libquarrin/media.h"
#include "libquarrin/naming.h"
#include "libquarrin/photo.h"
#include "libquarrin/quota.h"
#include "libquarrin/record.h"
#include "libquarrin/replay.h"
#include "libquarrin/storage.h"
#include "libquarrin/stream.h"

#endif
