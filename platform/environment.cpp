// The environment of a command. A line does what it says, however the host was started: an exported SHELLOPTS makes
// bash leave a line at its first failure or run nothing of it, BASH_ENV puts a script before it, and a function takes
// the place of any word in it, the shell's own words among them.
// Threads: any. Locks: none.

#include "environment.h"

#include <algorithm>
#include <cctype>
#include <iterator>

// Beside those that begin with BASH: what bash and busybox look at when they are no user's shell.
static const char *const SHELL_VARIABLES[] = {
    "SHELLOPTS",  "ENV",        "POSIXLY_CORRECT", "IFS",      "PS4",    "CDPATH",
    "GLOBIGNORE", "EXECIGNORE", "TMOUT",           "FUNCNEST", "OPTIND", "OPTERR",
};

// bash hands functions on as variables whose names no assignment could make: BASH_FUNC_echo%%.
static bool IsPlainName(const std::string &strName)
{
    return std::all_of(strName.begin(), strName.end(),
                       [](char c) { return c == '_' || isalnum(static_cast<unsigned char>(c)) != 0; });
}

static bool IsOfTheShell(const std::string &strName)
{
    return strName.compare(0, 4, "BASH") == 0 ||
           std::any_of(std::begin(SHELL_VARIABLES), std::end(SHELL_VARIABLES),
                       [&strName](const char *pszVariable) { return strName == pszVariable; });
}

std::vector<std::string> PLATFORM_CommandEnvironment(const char *const *ppszVariables)
{
    std::vector<std::string> vecKept;
    for (; ppszVariables != nullptr && *ppszVariables != nullptr; ++ppszVariables)
    {
        const std::string strVariable = *ppszVariables;
        const std::string strName = strVariable.substr(0, strVariable.find('='));
        // Older shells take any value of this form for a function.
        const bool bFunction = strVariable.compare(std::min(strName.size() + 1, strVariable.size()), 4, "() {") == 0;
        if (IsPlainName(strName) && !IsOfTheShell(strName) && !bFunction)
        {
            vecKept.push_back(strVariable);
        }
    }
    return vecKept;
}
