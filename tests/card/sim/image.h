// What is on a card before it is put in: tables and file systems, written into the image file.
// Threads: any. Locks: none.
#ifndef QUARRIN_TESTS_CARD_SIM_IMAGE_H
#define QUARRIN_TESTS_CARD_SIM_IMAGE_H

#include <cstdint>
#include <string>
#include <vector>

enum CARD_CONTENT_E : int32_t
{
    CARD_CONTENT_BLANK,        ///< zeros: never formatted
    CARD_CONTENT_TABLE,        ///< a DOS table with one partition, and nothing in it
    CARD_CONTENT_EXT4,         ///< one partition with ext4
    CARD_CONTENT_VFAT,         ///< one partition with vfat
    CARD_CONTENT_EXT2,         ///< one partition with another file system than a format makes
    CARD_CONTENT_FOREIGN,      ///< a DOS table of somebody else's: partition 3 alone
    CARD_CONTENT_GPT,          ///< a GPT with one partition
    CARD_CONTENT_NO_TABLE_EXT4 ///< ext4 on the whole device, without a table
};

/// Makes the image, sparse.
bool IMAGE_Make(const std::string &strPath, int64_t s64Bytes, CARD_CONTENT_E enContent);

/// Runs a program with its standard streams on /dev/null, or with strInput on its standard input. 0 is success.
int32_t IMAGE_Run(const std::vector<std::string> &vecArgs, const std::string &strInput = "");

/// A program is there to be run.
bool IMAGE_HasProgram(const std::string &strName);

#endif
