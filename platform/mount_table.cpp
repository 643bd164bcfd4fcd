// The kernel's table of mounts. See the header.

#include "mount_table.h"

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include <sys/sysmacros.h>

#include "log.h"

/// What one row says.
struct MOUNT_ROW_S
{
    std::string strDevice; ///< "major:minor"
    std::string strPath;
    std::string strSource; ///< a device's node, as a rule; empty when the row does not say
};

// The kernel writes blank, tab, newline and backslash of a path as \ and three octal digits.
static std::string DecodeOctal(const std::string &strText)
{
    std::string strPlain;
    for (size_t i = 0; i < strText.size(); ++i)
    {
        const bool bCode =
            strText[i] == '\\' && i + 3 < strText.size() && strText.find_first_not_of("01234567", i + 1) > i + 3;
        strPlain += bCode ? static_cast<char>(strtol(strText.substr(i + 1, 3).c_str(), nullptr, 8)) : strText[i];
        i += bCode ? 3 : 0;
    }
    return strPlain;
}

// False for a row that is cut short.
static bool ReadRow(const std::string &strLine, MOUNT_ROW_S &stRow)
{
    std::istringstream line(strLine);
    std::string strId;
    std::string strParent;
    std::string strRoot;
    line >> strId >> strParent >> stRow.strDevice >> strRoot >> stRow.strPath;
    stRow.strPath = DecodeOctal(stRow.strPath);
    const bool bWhole = !line.fail();
    std::string strWord;
    while (line >> strWord && strWord != "-") // options, and any number of optional columns
    {
    }
    line >> strWord >> stRow.strSource; // type, source
    stRow.strSource = DecodeOctal(stRow.strSource);
    return bWhole;
}

// The last row with this path; false when there is none.
static bool FindLast(const std::string &strTable, const std::string &strPath, MOUNT_ROW_S &stFound)
{
    std::istringstream table(strTable);
    std::string strLine;
    bool bFound = false;
    while (std::getline(table, strLine))
    {
        MOUNT_ROW_S stRow;
        if (ReadRow(strLine, stRow) && stRow.strPath == strPath)
        {
            stFound = stRow;
            bFound = true;
        }
    }
    return bFound;
}

std::string PLATFORM_ReadMountTable()
{
    std::ifstream file("/proc/self/mountinfo");
    std::string strTable((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (strTable.empty())
    {
        PLATFORM_LogError("cannot read /proc/self/mountinfo");
    }
    return strTable;
}

bool PLATFORM_TableHasMount(const std::string &strTable, const std::string &strPath)
{
    MOUNT_ROW_S stRow;
    return FindLast(strTable, strPath, stRow);
}

bool PLATFORM_TableShowsDevice(const std::string &strTable, const std::string &strPath, dev_t device)
{
    const std::string strDevice = std::to_string(major(device)) + ":" + std::to_string(minor(device));
    MOUNT_ROW_S stRow;
    return FindLast(strTable, strPath, stRow) && stRow.strDevice == strDevice;
}

std::string PLATFORM_TableSource(const std::string &strTable, const std::string &strPath)
{
    MOUNT_ROW_S stRow;
    return FindLast(strTable, strPath, stRow) ? stRow.strSource : "";
}
