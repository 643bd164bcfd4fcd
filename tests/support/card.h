// A card that is only a folder: a mount directory and a device node, both in a temporary directory of the test's own.
#ifndef QUARRIN_TESTS_CARD_H
#define QUARRIN_TESTS_CARD_H

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libquarrin.h"
#include "support/capture.h"
#include "support/fake_platform.h"
#include "support/wait.h"

/// Temporary directory, removed with everything in it at the end.
class TEMP_DIR
{
public:
    TEMP_DIR();
    ~TEMP_DIR();
    TEMP_DIR(const TEMP_DIR &) = delete;
    TEMP_DIR &operator=(const TEMP_DIR &) = delete;

    std::string strPath;
};

/// Makes an empty file (or one of the given bytes); its path.
std::string TEST_Touch(const std::string &strPath, const std::string &strBytes = "");

/// The bytes of a file.
std::string TEST_ReadFile(const std::string &strPath);

/// The path exists.
bool TEST_Exists(const std::string &strPath);

/// Names in a folder, sorted, without "." and "..".
std::vector<std::string> TEST_List(const std::string &strFolder);

/// The device exists and its partition node too; volumes 0 to 2 are "rec", "photo" and "event" and enabled, their
/// folders are there. PlugIn with bMountDir lets QN_Init find the mount directory: the state is MOUNTED at once.
class CARD_TEST : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override; // destroys the handle

    /// Makes the handle with stParam as it stands.
    void Init();

    /// Makes the mount directory with its volume folders, then the handle: MOUNTED at once.
    void InitMounted();

    /// Folder of a volume.
    std::string Folder(int32_t s32Volume) const;

    bool WaitForState(libquarrin::QN_STATE_E enState, int32_t s32Ms = 5000);

    /// Waits until every event is handled, and what its handler posted.
    bool WaitForIdle(int32_t s32Ms = 5000);

    TEMP_DIR m_dir;
    std::string m_strDevice;    ///< m_dir/dev/cardN, exists
    std::string m_strPartition; ///< m_dir/dev/cardNp1, exists
    std::string m_strMount;     ///< m_dir/mnt, does not exist unless InitMounted made it
    libquarrin::tagQN_STORAGE_PARAM_S m_stParam;
    libquarrin::tagQN_HANDLER_S *m_pHandle = nullptr;
};

#endif
