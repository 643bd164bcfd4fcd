// What the tests of the utility layer share: a directory of their own and a look at standard error.
#ifndef QUARRIN_TESTS_PLATFORM_HELPERS_H
#define QUARRIN_TESTS_PLATFORM_HELPERS_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/scratch.h"

/// A test with a temporary directory, removed with everything in it at the end.
class DIR_TEST : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const std::string strPath = TEST_MakeScratch("platform");
        ASSERT_NE("", strPath);
        m_strDir = std::filesystem::canonical(strPath);
    }

    void TearDown() override
    {
        (void)TEST_RemoveScratch(m_strDir); // what somebody still has mounted stays
    }

    std::string MakeFile(const std::string &strName, const std::string &strText = "kept") const
    {
        const std::string strPath = m_strDir + "/" + strName;
        std::ofstream(strPath) << strText;
        return strPath;
    }

    std::string MakeFolder(const std::string &strName) const
    {
        const std::string strPath = m_strDir + "/" + strName;
        std::filesystem::create_directory(strPath);
        return strPath;
    }

    static std::string ReadFile(const std::string &strPath)
    {
        std::ifstream file(strPath);
        return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }

    static bool Exists(const std::string &strPath)
    {
        return access(strPath.c_str(), F_OK) == 0;
    }

    /// Also a link that leads nowhere.
    static bool IsThere(const std::string &strPath)
    {
        struct stat stAny = {};
        return lstat(strPath.c_str(), &stAny) == 0;
    }

    std::string m_strDir;
};

/// Puts a descriptor in the place of standard error for its own lifetime.
class STDERR_SWAP
{
public:
    explicit STDERR_SWAP(int s32Fd) : m_s32Saved(dup(STDERR_FILENO))
    {
        dup2(s32Fd, STDERR_FILENO);
    }
    ~STDERR_SWAP()
    {
        dup2(m_s32Saved, STDERR_FILENO);
        close(m_s32Saved);
    }
    STDERR_SWAP(const STDERR_SWAP &) = delete;
    STDERR_SWAP &operator=(const STDERR_SWAP &) = delete;

private:
    int m_s32Saved;
};

#endif
