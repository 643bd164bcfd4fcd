// The utility layer of a device, in place of libquarrin_platform: the shell runner and the two loggers of
// bu_platform.h.
#ifndef EXAMPLES_OWN_LAYER_LAYER_H
#define EXAMPLES_OWN_LAYER_LAYER_H

#include <chrono>

#include <libquarrin.h>

/// Tells the layer which card it serves, before QN_Init, and how long a command may take: a mount that repairs a
/// journal needs its time. Formats get fifteen times as much.
void LAYER_Begin(const libquarrin::tagQN_STORAGE_PARAM_S &param, std::chrono::seconds limit = std::chrono::seconds(60));

/// Removes an empty mount directory that a power cut has left behind, with its empty volume folders, before QN_Init:
/// the library would take it for a mounted card. Nothing where a plain folder stands for a card.
void LAYER_RemoveLeftover(const libquarrin::tagQN_STORAGE_PARAM_S &param);

#endif
