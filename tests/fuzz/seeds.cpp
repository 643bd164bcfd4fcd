// Writes the first inputs of every fuzz target: seeds DIRECTORY makes DIRECTORY/fuzz_naming/0 and so on.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "clips.h"
#include "fuzz.h"
#include "support/streams.h"

using namespace libquarrin;

extern "C" int LLVMFuzzerInitialize(int *ps32Count, char ***pppszWords);

namespace
{

std::string s_strDirectory;

void Seed(const std::string &strTarget, const std::string &strBytes)
{
    static int32_t s32Number = 0;
    const std::string strFolder = s_strDirectory + "/" + strTarget;
    std::filesystem::create_directories(strFolder);
    FUZZ_WriteFile(strFolder + "/" + std::to_string(s32Number++), strBytes);
}

// A text behind its length.
std::string Counted(const std::string &strText)
{
    return static_cast<char>(strText.size()) + strText;
}

std::string Bytes(std::initializer_list<int32_t> list)
{
    std::string strBytes;
    for (const int32_t s32Byte : list)
    {
        strBytes += static_cast<char>(s32Byte);
    }
    return strBytes;
}

std::string ReadFile(const std::string &strPath)
{
    std::ifstream file(strPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

const char *const NAMES[] = {
    "2024-03-01-08-15-00.To.2024-03-01-08-20-00.mp4",
    "2024-03-01-08-15-00.To.2024-03-01-08-20-00.[door].mkv",
    "2024-03-01-08-15-00.To.unknown.ts",
    "2024-03-01-08-15-00.jpg",
    "2024-02-30-24-61-61.To.0000-00-00-00-00-00.[].mov",
    "+024- 3-+1-08-15-00.To.-001--1- 1-08-20-00.[a[b]c].aac",
    "notes.txt",
    "",
};

void Names()
{
    for (const char *pszName : NAMES)
    {
        Seed("fuzz_naming", std::string(1, '\0') + pszName);
        std::string strFolder;
        for (const char *pszOther : NAMES)
        {
            strFolder += Bytes({pszOther == pszName ? 4 : 0}) + Counted(pszOther);
        }
        Seed("fuzz_catalogue", strFolder + Bytes({8}) + Counted("2024-03-01-08-15-02.mkv") + Bytes({9}) +
                                   Counted("2024-03-01-08-15-03.mkv") + Bytes({16}) + Counted(".[x\n\xff].ts"));
    }
    Seed("fuzz_naming", Bytes({1, 0, 0, 0, 0, 0x65, 0xe1, 0x8c, 0x14, 0, 0, 0, 0, 0x65, 0xe1, 0x8d, 0x40, 0, 0, 0, 2}) +
                            Counted("door") + Counted("mp4"));
}

void Uevents()
{
    const std::string strPath = "/devices/platform/sdhci/mmc_host/mmc1/block/";
    for (const std::string strAction : {"add@", "remove@", "change@"})
    {
        Seed("fuzz_hotplug", Counted("mmcblk1") + Bytes({1}) + Counted(strAction + strPath) + Bytes({3}) +
                                 Counted(strAction + strPath) + Bytes({0}) +
                                 Counted(strAction + strPath + "mmcblk1" + std::string(1, '\0') + "ACTION=add") +
                                 Bytes({0}) + Counted(strAction + strPath + "mmcblk1p1"));
    }
}

void Streams()
{
    for (const TEST_FRAME_S &stFrame : TEST_EncodeH264(64, 64, 25, 3, 4))
    {
        Seed("fuzz_nal", std::string(stFrame.vecData.begin(), stFrame.vecData.end()));
    }
    const std::vector<uint8_t> &vecKey = TEST_EncodeH265(64, 64, 25, 3, 4)[0].vecData;
    Seed("fuzz_nal", std::string(vecKey.begin(), vecKey.end()));
    Seed("fuzz_nal", Bytes({0, 0, 0, 1, 0x67, 1, 0, 0, 0, 0, 1, 0x68, 2, 0, 0, 1, 0x65, 3, 0, 0, 0, 0, 0, 1, 9}));
    const std::vector<uint8_t> &vecAac = TEST_EncodeAac(48000, 2, 4)[0].vecData;
    Seed("fuzz_aac", std::string(vecAac.begin(), vecAac.begin() + 7));
}

void Clips()
{
    const std::string strPath = FUZZ_Scratch() + "/clip";
    const QN_FILE_FMT_E aenFormats[] = {QN_FILE_FMT_E_MKV, QN_FILE_FMT_E_TS, QN_FILE_FMT_E_MP4, QN_FILE_FMT_E_MOV};
    for (int32_t i = 0; i < 4; ++i)
    {
        for (const QN_CODEC_TYPE_E enCodec : {QN_CODEC_H264, QN_CODEC_H265})
        {
            FUZZ_WriteClip(strPath, aenFormats[i], enCodec, 6);
            Seed("fuzz_reader", ReadFile(strPath) + Bytes({i, 7, 24, 2, 2, 3, 5, 24, 4, 3, 13, 80, 6, 2, 3, 96}));
        }
    }
}

// Usual parameters, then frames: as they are, damaged, cut, made up, and with a jump in time.
void Writers()
{
    for (int32_t i = 0; i < 16; ++i)
    {
        const std::string strUsual(17, '\2');
        Seed("fuzz_writer", Bytes({i}) + strUsual + Bytes({0, 0, 4, 0, 4, 1, 1, 0, 9, 7, 2, 40, 7, 3, 1, 2, 3, 0, 4}) +
                                Bytes({48, 0, 0, 0, 0, 0, 1, 0, 0, 0, 4}));
        // Bits turned in the sets of the parameters, and in those of the first two key frames.
        Seed("fuzz_writer", Bytes({i}) + std::string(9, '\2') + Bytes({1, 0, 1, 80, 1, 0, 0, 40}) +
                                std::string(6, '\2') +
                                Bytes({65, 0, 1, 120 + i, 4, 0, 65, 1, 1, 160, 1, 220, 0, 4, 0, 0, 4}));
    }
}

void Calls()
{
    for (int32_t i = 0; i < 16; ++i)
    {
        Seed("fuzz_replay", Bytes({0, 0, i, 12, 9, 6, 12, 3, 4, 1, 12, 64, 1, i, 76, 8, i, 12, 7, 0, 2, 66}));
    }
    for (int32_t i = 0; i < 4; ++i)
    {
        // Made with splits after two seconds, started; key frames with time between them; a pause; a second session.
        Seed("fuzz_record", Bytes({0,  i,  10, 1, 2, 8, 3,    17, 7, 8,    0x43, 8,    0x80, 16, 16, 3, 17, 5,  4, 8,
                                   67, 16, 17, 9, 8, 3, 0x40, i,  1, 0x41, 6,    0x48, 1,    22, 8,  3, 16, 16, 5}));
        Seed("fuzz_record", Bytes({0,  i, 6, 1, 0,  8,  3,       17, 20, 19, 0,  16, 16, 5, 19,      1, 16, 16, 1, 5,
                                   17, 6, 8, 3, 16, 16, 21 + 32, 22, 8,  3,  16, 16, 8,  3, 20 + 32, 0, 8,  3,  7}));
    }
}

} // namespace

int main(int s32Count, char **ppszWords)
{
    if (s32Count != 2)
    {
        fprintf(stderr, "seeds DIRECTORY\n");
        return 2;
    }
    s_strDirectory = ppszWords[1];
    LLVMFuzzerInitialize(&s32Count, &ppszWords);
    Names();
    Uevents();
    Streams();
    Clips();
    Writers();
    Calls();
    return 0;
}
