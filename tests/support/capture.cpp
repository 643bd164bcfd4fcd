#include "support/capture.h"

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <unistd.h>

#include <gtest/gtest.h>

STDOUT_CAPTURE::STDOUT_CAPTURE()
{
    char szPath[] = "/tmp/quarrin-stdout-XXXXXX";
    fflush(stdout);
    m_s32File = mkstemp(szPath);
    unlink(szPath);
    m_s32Saved = dup(STDOUT_FILENO);
    dup2(m_s32File, STDOUT_FILENO);
}

STDOUT_CAPTURE::~STDOUT_CAPTURE()
{
    const std::string strText = testing::Test::HasFailure() ? Text() : ""; // holds the failures' own messages too
    fflush(stdout);
    dup2(m_s32Saved, STDOUT_FILENO);
    close(m_s32Saved);
    (void)fwrite(strText.data(), 1, strText.size(), stdout);
    close(m_s32File);
}

std::string STDOUT_CAPTURE::Text()
{
    fflush(stdout);
    std::string strText;
    char acBlock[4096];
    off_t s64Offset = 0;
    ssize_t s32Read = 0;
    while ((s32Read = pread(m_s32File, acBlock, sizeof(acBlock), s64Offset)) > 0)
    {
        strText.append(acBlock, static_cast<size_t>(s32Read));
        s64Offset += s32Read;
    }
    return strText;
}

int STDOUT_CAPTURE::Count(const std::string &strPart)
{
    const std::string strText = Text();
    int s32Count = 0;
    for (size_t at = strText.find(strPart); at != std::string::npos; at = strText.find(strPart, at + 1))
    {
        ++s32Count;
    }
    return s32Count;
}

bool STDOUT_CAPTURE::Has(const std::string &strPart)
{
    return Text().find(strPart) != std::string::npos;
}

bool STDOUT_CAPTURE::HasLine(const std::string &strPattern)
{
    const std::regex pattern(strPattern);
    std::istringstream lines(Text());
    std::string strLine;
    while (std::getline(lines, strLine))
    {
        if (std::regex_match(strLine, pattern))
        {
            return true;
        }
    }
    return false;
}
