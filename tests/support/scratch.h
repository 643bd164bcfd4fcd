// Folders of the tests' own. A neighbour who may write into the same folder could put links where the tests clean up,
// and the tests may run as root: what they make lies where nobody else may write, and no link is followed when it goes.
// Threads: any.
#ifndef QUARRIN_TESTS_SCRATCH_H
#define QUARRIN_TESTS_SCRATCH_H

#include <string>

/// The folder that all of this user's tests share, for this user alone: for root in /run, where that can hold cards,
/// nodes and programs; else in $TMPDIR or /tmp. Empty when somebody else has made it.
std::string TEST_ScratchBase();

/// Makes a folder in it: the name, a dash and six signs. Empty on failure.
std::string TEST_MakeScratch(const std::string &strName);

/// Removes a folder of this user's with all that is in it, but nothing that links or mounts lead to. False when
/// something stays.
bool TEST_RemoveScratch(const std::string &strPath);

#endif
