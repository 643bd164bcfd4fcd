// Running a program: the shell that commands need, and the wait for an exit status that no SIGCHLD setting can take
// away.
// Threads: any. Locks: none.
#ifndef QUARRIN_PLATFORM_PROCESS_H
#define QUARRIN_PLATFORM_PROCESS_H

#include <cstdint>
#include <string>
#include <vector>

/// Result of a program that could not be started; the shells' own number for it.
constexpr int32_t PLATFORM_NOT_STARTED = 127;

/// Searches folders, separated by colons, for bash and then for busybox. The beginning of a command line, {"/bin/bash"}
/// or {"/bin/busybox", "sh"}; empty when neither is there.
std::vector<std::string> PLATFORM_FindShell(const std::string &strFolders);

/// The folders that are searched: PATH, then the usual places.
std::string PLATFORM_ShellFolders();

/// Runs a program, found in PATH or the sbin folders, below a shell that reports how it ended. Its exit status, 128 + n
/// when signal n ended it, 127 when it or the shell could not be started.
int32_t PLATFORM_RunArgs(const std::vector<std::string> &vecShell, const std::vector<std::string> &vecArgs);

#endif
