// File names: what is read of any name, and that names which are built read back.

#include "fuzz.h"

#include <cctype>
#include <cstring>
#include <ctime>

using namespace libquarrin;

namespace
{

constexpr int64_t LAST_FOUR_DIGIT_SECOND = 253402300799; // 9999-12-31 23:59:59
constexpr int32_t MARK = 77777;                          // of fields that stay untouched

// A second reader of the same form, written without the C library's scanner.
class SCANNER
{
public:
    explicit SCANNER(const std::string &strName) : m_strName(strName)
    {
    }

    bool Literal(const char *pszText)
    {
        const size_t length = strlen(pszText);
        if (m_strName.compare(m_at, length, pszText) != 0)
        {
            return false;
        }
        m_at += length;
        return true;
    }

    bool Number(size_t width, int &s32Value)
    {
        while (m_at < m_strName.size() && isspace(static_cast<unsigned char>(m_strName[m_at])) != 0)
        {
            ++m_at;
        }
        const size_t end = std::min(m_strName.size(), m_at + width);
        const bool bMinus = m_at < end && m_strName[m_at] == '-';
        if (m_at < end && (bMinus || m_strName[m_at] == '+'))
        {
            ++m_at;
        }
        const size_t first = m_at;
        int32_t s32Sum = 0;
        for (; m_at < end && m_strName[m_at] >= '0' && m_strName[m_at] <= '9'; ++m_at)
        {
            s32Sum = s32Sum * 10 + (m_strName[m_at] - '0');
        }
        s32Value = bMinus ? -s32Sum : s32Sum;
        return m_at > first;
    }

    bool Time(tm &stTime)
    {
        return Number(4, stTime.tm_year) && Literal("-") && Number(2, stTime.tm_mon) && Literal("-") &&
               Number(2, stTime.tm_mday) && Literal("-") && Number(2, stTime.tm_hour) && Literal("-") &&
               Number(2, stTime.tm_min) && Literal("-") && Number(2, stTime.tm_sec);
    }

private:
    const std::string m_strName;
    size_t m_at = 0;
};

tm Marked()
{
    tm stTime = {};
    stTime.tm_year = stTime.tm_mon = stTime.tm_mday = stTime.tm_hour = stTime.tm_min = stTime.tm_sec = MARK;
    stTime.tm_wday = stTime.tm_yday = stTime.tm_isdst = MARK;
    return stTime;
}

bool IsTime(const tm &stGot, const tm &stWanted)
{
    return stGot.tm_year == stWanted.tm_year - 1900 && stGot.tm_mon == stWanted.tm_mon - 1 &&
           stGot.tm_mday == stWanted.tm_mday && stGot.tm_hour == stWanted.tm_hour && stGot.tm_min == stWanted.tm_min &&
           stGot.tm_sec == stWanted.tm_sec && stGot.tm_wday == MARK && stGot.tm_yday == MARK && stGot.tm_isdst == MARK;
}

void CheckAnyName(const std::string &strName)
{
    tm stStart = Marked();
    tm stEnd = Marked();
    std::string strExt = "before";
    const int32_t s32Got = QN_STORAGE_GetFilenameInfo(strName.c_str(), stStart, stEnd, strExt);

    SCANNER scanner(strName);
    tm stFirst = Marked();
    tm stSecond = Marked();
    const bool bStart = scanner.Time(stFirst);
    const bool bEnd = bStart && scanner.Literal(".To.") && scanner.Time(stSecond);
    FUZZ_Check(s32Got == (bStart ? 0 : -1), "a name is read when it begins with a time");
    FUZZ_Check(!bStart || IsTime(stStart, stFirst), "the start is that of the name");
    FUZZ_Check(!bStart || IsTime(stEnd, bEnd ? stSecond : stFirst), "the end is that of the name, or the start");
    FUZZ_Check(bStart || stEnd.tm_mday == MARK, "a name that cannot be read leaves the end alone");
    const size_t dot = strName.rfind('.');
    FUZZ_Check(strExt == (dot == std::string::npos ? "before" : strName.substr(dot + 1)), "the extension is the rest");

    const size_t open = strName.find('[');
    const size_t close = strName.rfind(']');
    const bool bComment = open != std::string::npos && close != std::string::npos && open < close;
    FUZZ_Check(QN_STORAGE_GetFilenameComment(strName.c_str()) ==
                   (bComment ? strName.substr(open + 1, close - open - 1) : ""),
               "the comment stands between the outermost brackets");
    FUZZ_Check(std::string(QN_STORAGE_FmtType2FileExt(QN_STORAGE_FileExt2FmtType(strExt.c_str()))) == strExt ||
                   QN_STORAGE_FileExt2FmtType(strExt.c_str()) == QN_FILE_FMT_E_UNKNOWN,
               "an extension that is known maps back to itself");
}

void CheckBuilt(const std::string &strPath, int64_t s64Start, int64_t s64End, const std::string &strComment,
                const std::string &strExt)
{
    FUZZ_Check(strPath.compare(0, 8, "/mnt/rec") == 0 && strPath[8] == '/', "a path begins with its folders");
    const std::string strName = strPath.substr(9);
    CheckAnyName(strName);
    const auto fnIsPlain = [](int64_t s64Time)
    {
        return s64Time >= 0 && s64Time <= LAST_FOUR_DIGIT_SECOND;
    };
    tm stStart = {};
    tm stEnd = {};
    std::string strReadExt;
    if (fnIsPlain(s64Start) && fnIsPlain(s64End))
    {
        FUZZ_Check(QN_STORAGE_GetFilenameInfo(strName.c_str(), stStart, stEnd, strReadExt) == 0, "a built name reads");
        FUZZ_Check(timegm(&stStart) == s64Start && timegm(&stEnd) == s64End, "a built name gives its times back");
        FUZZ_Check(strExt.find('.') != std::string::npos || strReadExt == strExt, "and its extension");
    }
    FUZZ_Check(strComment.empty() || strExt.find(']') != std::string::npos ||
                   QN_STORAGE_GetFilenameComment(strName.c_str()) == strComment,
               "and its comment");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pu8Data, size_t size)
{
    FUZZ_INPUT input(pu8Data, size);
    if (input.U8() % 2 == 0)
    {
        CheckAnyName(input.Rest().c_str()); // up to the first zero
        return 0;
    }
    const int64_t s64Start = input.S64();
    const int64_t s64End = input.S64();
    (void)QN_STORAGE_FmtType2FileExt(static_cast<QN_FILE_FMT_E>(input.U32()));
    const std::string strComment = input.Text();
    const std::string strExt = input.Text();
    CheckBuilt(QN_STORAGE_GenerateRecordFile("/mnt", "rec", s64Start, s64End, strComment.c_str(), strExt.c_str()),
               s64Start, s64End, strComment, strExt);
    CheckBuilt(QN_STORAGE_GenerateRecordingFile("/mnt", "rec", s64Start, strComment.c_str(), strExt.c_str()), s64Start,
               s64Start, strComment, strExt);
    return 0;
}
