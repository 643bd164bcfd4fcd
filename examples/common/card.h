// What a host settles before QN_Init: which card, which folder on it, and whether the mount point is safe.
#ifndef EXAMPLES_CARD_H
#define EXAMPLES_CARD_H

#include <string>

#include <libquarrin.h>

/// The folder of the recordings below the mount point; volume 0.
constexpr const char *RECORDINGS = "rec";

/// Partition 1 of a device, with one volume that may take 90 per cent of the card.
libquarrin::tagQN_STORAGE_PARAM_S CardParam(const std::string &device, const std::string &mountPoint, bool autoDelete);

/// Why the library must not get this mount point, as a sentence; empty when it may. The utility layer removes what a
/// power cut left behind before this is asked: QN_PLATFORM_RemoveLeftover, or LAYER_RemoveLeftover of own_layer.
std::string WhyNotMountPoint(const libquarrin::tagQN_STORAGE_PARAM_S &param);

/// Another file system begins at this directory.
bool IsMountPoint(const std::string &path);

/// The state as a word or two.
const char *StateText(libquarrin::QN_STATE_E state);

#endif
