// File names: built from times, read back from names that this library and anybody else wrote.

#include <cstring>
#include <ctime>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libquarrin.h"
#include "storage/storage_support.h"

using namespace libquarrin;

namespace
{

constexpr time_t START = 1709280900; // 2024-03-01 08:15:00 UTC
constexpr time_t END = START + 300;

/// What a name is read as; year and month as in the name.
struct PARSED_S
{
    int32_t s32Result;
    std::string strStart;
    std::string strEnd;
    std::string strExt;
};

std::string Fields(const tm &stTime)
{
    std::string strText;
    for (const int s32Field :
         {stTime.tm_year + 1900, stTime.tm_mon + 1, stTime.tm_mday, stTime.tm_hour, stTime.tm_min, stTime.tm_sec})
    {
        strText += (strText.empty() ? "" : " ") + std::to_string(s32Field);
    }
    return strText;
}

PARSED_S Parse(const std::string &strName)
{
    tm stStart = {};
    tm stEnd = {};
    PARSED_S stParsed;
    stParsed.strExt = "as before";
    stParsed.s32Result = QN_STORAGE_GetFilenameInfo(strName.c_str(), stStart, stEnd, stParsed.strExt);
    stParsed.strStart = Fields(stStart);
    stParsed.strEnd = Fields(stEnd);
    return stParsed;
}

} // namespace

TEST(Naming, FinishedRecordingCarriesStartAndEnd)
{
    EXPECT_EQ("/mnt/sd/rec/2024-03-01-08-15-00.To.2024-03-01-08-20-00.mp4",
              QN_STORAGE_GenerateRecordFile("/mnt/sd", "rec", START, END, nullptr, "mp4"));
    EXPECT_EQ("/mnt/sd/rec/2024-03-01-08-15-00.To.2024-03-01-08-20-00.[door].mp4",
              QN_STORAGE_GenerateRecordFile("/mnt/sd", "rec", START, END, "door", "mp4"));
}

TEST(Naming, RecordingInProgressHasAnUnknownEnd)
{
    EXPECT_EQ("/mnt/sd/rec/2024-03-01-08-15-00.To.unknown.mp4",
              QN_STORAGE_GenerateRecordingFile("/mnt/sd", "rec", START, nullptr, "mp4"));
    EXPECT_EQ("/mnt/sd/rec/2024-03-01-08-15-00.To.unknown.[door].ts",
              QN_STORAGE_GenerateRecordingFile("/mnt/sd", "rec", START, "door", "ts"));
}

TEST(Naming, PictureCarriesOneTime)
{
    EXPECT_EQ("/mnt/sd/rec/2024-03-01-08-15-00.jpg",
              QN_STORAGE_GenerateImageFile("/mnt/sd", "rec", START, nullptr, "jpg"));
    EXPECT_EQ("/mnt/sd/rec/2024-03-01-08-15-00.[door].jpg",
              QN_STORAGE_GenerateImageFile("/mnt/sd", "rec", START, "door", "jpg"));
}

TEST(Naming, EmptyCommentHasNoBracketsButABlankHas)
{
    EXPECT_EQ("m/f/1970-01-01-00-00-00.To.1970-01-01-00-00-01.ts",
              QN_STORAGE_GenerateRecordFile("m", "f", 0, 1, "", "ts"));
    EXPECT_EQ("m/f/1970-01-01-00-00-00.To.unknown.ts", QN_STORAGE_GenerateRecordingFile("m", "f", 0, "", "ts"));
    EXPECT_EQ("m/f/1970-01-01-00-00-00.jpg", QN_STORAGE_GenerateImageFile("m", "f", 0, "", "jpg"));
    EXPECT_EQ("m/f/1970-01-01-00-00-00.To.1970-01-01-00-00-01.[ ].ts",
              QN_STORAGE_GenerateRecordFile("m", "f", 0, 1, " ", "ts"));
    EXPECT_EQ("m/f/1970-01-01-00-00-00.To.unknown.[ ].ts", QN_STORAGE_GenerateRecordingFile("m", "f", 0, " ", "ts"));
    EXPECT_EQ("m/f/1970-01-01-00-00-00.[ ].jpg", QN_STORAGE_GenerateImageFile("m", "f", 0, " ", "jpg"));
}

TEST(Naming, PiecesStandInThePathAsTheyAreGiven)
{
    EXPECT_EQ("/mnt//rec//1970-01-01-00-00-00.[a/b]c%s$(x)].", // no escaping, and an empty extension keeps its dot
              QN_STORAGE_GenerateImageFile("/mnt/", "rec/", 0, "a/b]c%s$(x)", ""));
    EXPECT_EQ("//1970-01-01-00-00-00.jpg", QN_STORAGE_GenerateImageFile("", "", 0, nullptr, "jpg"));
}

TEST(Naming, NoLengthIsTooLong)
{
    const std::string strDir(5000, 'd');
    const std::string strFolder(6000, 'f');
    const std::string strComment(7000, 'c');
    const std::string strExt(800, 'e');
    const std::string strHead = strDir + "/" + strFolder + "/1970-01-01-00-00-00";
    const std::string strTail = ".[" + strComment + "]." + strExt;
    EXPECT_EQ(
        strHead + ".To.1970-01-01-00-00-09" + strTail,
        QN_STORAGE_GenerateRecordFile(strDir.c_str(), strFolder.c_str(), 0, 9, strComment.c_str(), strExt.c_str()));
    EXPECT_EQ(strHead + ".To.unknown" + strTail, QN_STORAGE_GenerateRecordingFile(strDir.c_str(), strFolder.c_str(), 0,
                                                                                  strComment.c_str(), strExt.c_str()));
    EXPECT_EQ(strHead + strTail,
              QN_STORAGE_GenerateImageFile(strDir.c_str(), strFolder.c_str(), 0, strComment.c_str(), strExt.c_str()));
}

TEST(Naming, TimesAreTextsInUtc)
{
    const struct
    {
        int64_t s64Time;
        const char *pszText;
    } astCases[] = {
        {0, "1970-01-01-00-00-00"},
        {-1, "1969-12-31-23-59-59"},
        {START, "2024-03-01-08-15-00"},
        {1709164799, "2024-02-28-23-59-59"},
        {1709164800, "2024-02-29-00-00-00"},
        {2147483647, "2038-01-19-03-14-07"},
        {2147483648, "2038-01-19-03-14-08"}, // behind the 32-bit clock
        {4102444800, "2100-01-01-00-00-00"},
        {4294967296, "2106-02-07-06-28-16"},
        {253402300799, "9999-12-31-23-59-59"},
        {253402300800, "10000-01-01-00-00-00"},
        {-62135596800, "0001-01-01-00-00-00"},
    };
    for (const char *pszZone : {"UTC", "EST5", "ABC-9:30", "CET-1CEST,M3.5.0,M10.5.0/3"})
    {
        const TIME_ZONE zone(pszZone);
        for (const auto &stCase : astCases)
        {
            EXPECT_EQ(stCase.pszText, QN_STORAGE_PrettierTime(static_cast<time_t>(stCase.s64Time))) << pszZone;
        }
        EXPECT_EQ("m/f/2024-03-01-08-15-00.To.2038-01-19-03-14-08.mov",
                  QN_STORAGE_GenerateRecordFile("m", "f", START, static_cast<time_t>(2147483648), nullptr, "mov"));
    }
}

TEST(Naming, AbsurdTimesStillGiveAText)
{
    for (const int64_t s64Time : {std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min(),
                                  int64_t{67768036191676799}, int64_t{67767976233532800}, int64_t{-67768040609740800}})
    {
        const std::string strText = QN_STORAGE_PrettierTime(static_cast<time_t>(s64Time));
        EXPECT_GE(strText.size(), strlen("1970-01-01-00-00-00")) << s64Time;
        EXPECT_LT(strText.size(), 64u) << s64Time;
    }
    EXPECT_EQ("2147485547-12-31-23-59-59", QN_STORAGE_PrettierTime(static_cast<time_t>(67768036191676799)));
}

TEST(Naming, EveryContainerHasItsExtension)
{
    const struct
    {
        int32_t s32Format;
        const char *pszExt;
    } astCases[] = {{0, "mkv"},  {1, "ts"},   {2, "mp4"},  {3, "mov"},    {4, "mkv"},
                    {5, "wav"},  {6, "wav"},  {7, "aac"},  {8, "mkv"},    {9, "jpg"},
                    {10, "mkv"}, {11, "mkv"}, {12, "mkv"}, {1000, "mkv"}, {-1, "mkv"}};
    for (const auto &stCase : astCases)
    {
        EXPECT_STREQ(stCase.pszExt, QN_STORAGE_FmtType2FileExt(static_cast<QN_FILE_FMT_E>(stCase.s32Format)))
            << stCase.s32Format;
    }
    EXPECT_EQ(QN_STORAGE_FmtType2FileExt(QN_FILE_FMT_E_TS), QN_STORAGE_FmtType2FileExt(QN_FILE_FMT_E_TS));
}

TEST(Naming, ExtensionsMapBackExactly)
{
    const struct
    {
        const char *pszExt;
        int32_t s32Format;
    } astCases[] = {{"mkv", 0}, {"ts", 1},   {"mp4", 2},  {"mov", 3},   {"wav", 5},    {"aac", 7},     {"jpg", 9},
                    {"", 11},   {"MP4", 11}, {"Mkv", 11}, {"jpeg", 11}, {".mkv", 11},  {"mkv ", 11},   {" ts", 11},
                    {"t", 11},  {"tss", 11}, {"mp", 11},  {"txt", 11},  {"mkv\n", 11}, {"unknown", 11}};
    for (const auto &stCase : astCases)
    {
        EXPECT_EQ(stCase.s32Format, QN_STORAGE_FileExt2FmtType(stCase.pszExt)) << '"' << stCase.pszExt << '"';
    }
    EXPECT_EQ(11, QN_STORAGE_FileExt2FmtType(std::string(100000, 'm').c_str()));
}

TEST(Naming, NamesAreReadBack)
{
    const std::string strOne = "2024 3 1 8 15 0";
    const std::string strTwo = "2024 3 1 8 20 0";
    const struct
    {
        const char *pszName;
        std::string strStart;
        std::string strEnd;
        const char *pszExt;
    } astCases[] = {
        {"2024-03-01-08-15-00.To.2024-03-01-08-20-00.mp4", strOne, strTwo, "mp4"},
        {"2024-03-01-08-15-00.To.2024-03-01-08-20-00.[door].mkv", strOne, strTwo, "mkv"},
        {"2024-03-01-08-15-00.To.2024-03-01-08-20-00", strOne, strTwo, "2024-03-01-08-20-00"},
        {"2024-03-01-08-15-00.To.2024-03-01-08-20-00anything.ts", strOne, strTwo, "ts"},
        {"2024-03-01-08-15-00.To.unknown.mkv", strOne, strOne, "mkv"},
        {"2024-03-01-08-15-00.To.unknown", strOne, strOne, "unknown"},
        {"2024-03-01-08-15-00.jpg", strOne, strOne, "jpg"},
        {"2024-03-01-08-15-00", strOne, strOne, "as before"},
        {"2024-03-01-08-15-00.", strOne, strOne, ""},
        {"2024-03-01-08-15-00.tar.gz", strOne, strOne, "gz"},
        {"2024-03-01-08-15-00.To.2024-03-01-08-20.mp4", strOne, strOne, "mp4"}, // eleven numbers: one time
        {"2024-03-01-08-15-00.to.2024-03-01-08-20-00.mp4", strOne, strOne, "mp4"},
        {"2024-03-01-08-15-00 .To.2024-03-01-08-20-00.mp4", strOne, strOne, "mp4"},
        {"2024-03-01-08-15-009.To.2024-03-01-08-20-00.mp4", strOne, strOne, "mp4"}, // two digits, then no ".To."
        {"2024-3-1-8-15-0.To.2024-3-1-8-20-0.mp4", strOne, strTwo, "mp4"},
        {"9999-99-99-99-99-99.To.0000-00-00-00-00-00.x", "9999 99 99 99 99 99", "0 0 0 0 0 0", "x"},
        // Numbers are read as the C library reads them: blanks are skipped, a sign takes one place of the width.
        {"+024-03-01-08-15-00.x", "24 3 1 8 15 0", "24 3 1 8 15 0", "x"},
        {"-024--3-+1- 8-15-00.x", "-24 -3 1 8 15 0", "-24 -3 1 8 15 0", "x"},
        {" \t\n2024-03-01-08-15-00.x", strOne, strOne, "x"},
        {"2024-03-01-08-15-00.To. 2024-03-01-08-20--5.x", strOne, "2024 3 1 8 20 -5", "x"},
    };
    for (const auto &stCase : astCases)
    {
        const PARSED_S stParsed = Parse(stCase.pszName);
        EXPECT_EQ(0, stParsed.s32Result) << stCase.pszName;
        EXPECT_EQ(stCase.strStart, stParsed.strStart) << stCase.pszName;
        EXPECT_EQ(stCase.strEnd, stParsed.strEnd) << stCase.pszName;
        EXPECT_EQ(stCase.pszExt, stParsed.strExt) << stCase.pszName;
    }
}

TEST(Naming, NamesThatDoNotBeginWithATimeAreRefusedButGiveTheirExtension)
{
    const struct
    {
        std::string strName;
        const char *pszExt;
    } astCases[] = {
        {"notes.txt", "txt"},
        {"", "as before"},
        {".", ""},
        {"nodot", "as before"},
        {"2024", "as before"},
        {"2024-03-01-08-15.mkv", "mkv"},
        {"2024-03-01-08-15-.mkv", "mkv"},
        {"2024_03_01_08_15_00.mkv", "mkv"},
        {"20245-03-01-08-15-00.mkv", "mkv"}, // five digits of a year
        {"2024-003-01-08-15-00.mkv", "mkv"},
        {"2024 -03-01-08-15-00.mkv", "mkv"},
        {"x2024-03-01-08-15-00.mkv", "mkv"},
        {"/2024-03-01-08-15-00.mkv", "mkv"}, // a path is no name
        {"--24-03-01-08-15-00.mkv", "mkv"},
        {"\xff\xfe\x01.\x80", "\x80"},
        {"%d-%s-%n-%n-%n-%n.%n", "%n"},
        {std::string(100000, '9') + ".mkv", "mkv"},
        {"2024-03-01-08-15-\xd9\xa3\xd9\xa3.mkv", "mkv"}, // digits of another script
    };
    for (const auto &stCase : astCases)
    {
        const PARSED_S stParsed = Parse(stCase.strName);
        EXPECT_EQ(-1, stParsed.s32Result) << stCase.strName.substr(0, 80);
        EXPECT_EQ(stCase.pszExt, stParsed.strExt) << stCase.strName.substr(0, 80);
    }
}

TEST(Naming, EndIsUntouchedWhenANameIsRefused)
{
    tm stStart = {};
    tm stEnd = {};
    memset(&stEnd, 0x5a, sizeof(stEnd));
    const tm stBefore = stEnd;
    std::string strExt;
    EXPECT_EQ(-1, QN_STORAGE_GetFilenameInfo("2024-03-01-08-15.To.2024-03-01-08-20-00.mkv", stStart, stEnd, strExt));
    EXPECT_EQ(0, memcmp(&stBefore, &stEnd, sizeof(stEnd)));
}

TEST(Naming, FieldsThatANameDoesNotCarryKeepTheirContents)
{
    tm stStart = {};
    tm stEnd = {};
    stStart.tm_isdst = 7;
    stStart.tm_wday = 8;
    stStart.tm_yday = 9;
    stEnd.tm_isdst = 10;
    stEnd.tm_wday = 11;
    std::string strExt;
    EXPECT_EQ(0, QN_STORAGE_GetFilenameInfo("2024-03-01-08-15-00.To.2024-03-01-08-20-00.mkv", stStart, stEnd, strExt));
    EXPECT_EQ(124, stStart.tm_year);
    EXPECT_EQ(2, stStart.tm_mon);
    EXPECT_EQ(124, stEnd.tm_year);
    EXPECT_EQ(2, stEnd.tm_mon);
    EXPECT_EQ(7, stStart.tm_isdst);
    EXPECT_EQ(8, stStart.tm_wday);
    EXPECT_EQ(9, stStart.tm_yday);
    EXPECT_EQ(10, stEnd.tm_isdst);
    EXPECT_EQ(11, stEnd.tm_wday);

    // One time only: the whole start is copied, the fields that no name carries too.
    EXPECT_EQ(0, QN_STORAGE_GetFilenameInfo("2024-03-01-08-15-00.To.unknown.mkv", stStart, stEnd, strExt));
    EXPECT_EQ(124, stEnd.tm_year);
    EXPECT_EQ(2, stEnd.tm_mon);
    EXPECT_EQ(7, stEnd.tm_isdst);
    EXPECT_EQ(8, stEnd.tm_wday);
    EXPECT_EQ(9, stEnd.tm_yday);
}

TEST(Naming, CommentStandsBetweenTheFirstAndTheLastBracket)
{
    const struct
    {
        std::string strName;
        std::string strComment;
    } astCases[] = {
        {"2024-03-01-08-15-00.To.2024-03-01-08-20-00.[door].mkv", "door"},
        {"a[b]c[d]e", "b]c[d"},
        {"a]b[c", ""},
        {"abc", ""},
        {"", ""},
        {"[", ""},
        {"]", ""},
        {"[]", ""},
        {"][", ""},
        {"[[]]", "[]"},
        {"]a[b]", "b"},
        {"[a]b[", "a"},
        {"x.[ ].y", " "},
        {"x.[%s%n].y", "%s%n"},
        {"[\x80\xff]", "\x80\xff"},
        {"[" + std::string(100000, '[') + "]", std::string(100000, '[')},
    };
    for (const auto &stCase : astCases)
    {
        EXPECT_EQ(stCase.strComment, QN_STORAGE_GetFilenameComment(stCase.strName.c_str()))
            << stCase.strName.substr(0, 80);
    }
}
