// The utility layer of a device, in place of libquarrin_platform: the shell runner and the two loggers of bu_platform.h.
#ifndef EXAMPLES_OWN_LAYER_LAYER_H
#define EXAMPLES_OWN_LAYER_LAYER_H

#include <chrono>

#include <libquarrin.h>

/// Tells the layer which card it serves, before QN_Init, and how long a command may take: a mount that repairs a journal
/// needs its time. Formats get fifteen times as much.
void LAYER_Begin(const libquarrin::tagQN_STORAGE_PARAM_S &param, std::chrono::seconds limit = std::chrono::seconds(60));

#endif
