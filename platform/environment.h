// What a command sees of the host's environment.
// Threads: any that may read the environment. Locks: none.
#ifndef QUARRIN_PLATFORM_ENVIRONMENT_H
#define QUARRIN_PLATFORM_ENVIRONMENT_H

#include <string>
#include <vector>

/// The variables, "NAME=value", without those that change how a shell reads and runs a line.
std::vector<std::string> PLATFORM_CommandEnvironment(const char *const *ppszVariables);

#endif
