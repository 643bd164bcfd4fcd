// The command line of the player.
#ifndef EXAMPLES_PLAYER_OPTIONS_H
#define EXAMPLES_PLAYER_OPTIONS_H

#include <ctime>
#include <limits>
#include <string>

#include <libquarrin.h>

constexpr int EXIT_GOOD = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

constexpr const char *USAGE =
    "usage: player DEVICE MOUNTPOINT list [FROM [TO]] [--volume N]\n"
    "       player DEVICE MOUNTPOINT play NAME [--seek SECONDS] [--keys] [--fast] [--output FILE]\n"
    "  DEVICE    the card, /dev/mmcblk1; /dev/null: MOUNTPOINT is a plain folder that stands for one\n"
    "  FROM, TO  UTC as in the names, 2024-03-01-08-15-00\n"
    "  NAME      of a recording, as list shows it\n"
    "  --keys    key frames alone; --fast: without waiting\n"
    "  --output  file for the H.264 or H.265 stream; without it standard output: player ... | ffplay -\n";

struct Options
{
    std::string device;
    std::string mountPoint;
    std::string command;
    std::string name;   ///< play: of the recording
    std::string output; ///< play: file to write; empty: standard output
    uint32_t seek = 0;  ///< play: seconds from the begin
    bool keys = false;  ///< play: key frames alone
    bool fast = false;  ///< play: without waiting
    time_t from = 0;    ///< list: recordings that touch this span
    time_t to = std::numeric_limits<time_t>::max();
    libquarrin::QN_VOLUME_ID_E volume = libquarrin::QN_VOLUME_ID_E_0; ///< list
};

/// False when the words are none of the usage.
bool ParseOptions(Options &options, int argc, char **argv);

#endif
