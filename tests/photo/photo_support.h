// Pictures for the tests: decoding a JPEG file, comparing planes, looking at open descriptors.
#ifndef QUARRIN_TESTS_PHOTO_SUPPORT_H
#define QUARRIN_TESTS_PHOTO_SUPPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "libquarrin.h"

/// One plane of a picture, tightly packed.
struct PLANE_S
{
    int32_t s32Width = 0;
    int32_t s32Height = 0;
    std::vector<uint8_t> vecBytes;

    uint8_t At(int32_t s32X, int32_t s32Y) const;
    /// Largest difference to one value, over all pixels.
    int32_t FarthestFrom(int32_t s32Value) const;
    /// Mean difference to another plane of the same size; 255 when the sizes differ.
    double MeanDifference(const PLANE_S &stOther) const;
};

/// A decoded JPEG file with its luma plane and two chroma planes of half the size.
struct PICTURE_S
{
    bool bDecoded = false;
    bool bFullRange = false;
    PLANE_S stY;
    PLANE_S stU;
    PLANE_S stV;
};

/// Decodes a file of one JPEG picture in 4:2:0.
PICTURE_S DecodeJpeg(const std::string &strPath);

/// Red, green and blue of one point, from luma and chroma (ITU-R BT.601, full range, as JFIF has it).
struct COLOUR_S
{
    int32_t s32Red;
    int32_t s32Green;
    int32_t s32Blue;
};
COLOUR_S ColourAt(const PICTURE_S &stPicture, int32_t s32X, int32_t s32Y);

/// Each of the three is at most s32Tolerance away.
bool IsNear(const COLOUR_S &stColour, const COLOUR_S &stOther, int32_t s32Tolerance);

/// Open descriptors of this process.
std::vector<int32_t> OpenDescriptors();

/// The descriptors that are open on a path, with the close-on-exec flag of each.
struct DESCRIPTOR_S
{
    int32_t s32Fd;
    bool bCloseOnExec;
};
std::vector<DESCRIPTOR_S> DescriptorsOf(const std::string &strPath);

#endif
