// Still pictures from packed RGB, through SDL2_image.
// Threads: any, at the same time on different paths. Locks: none. Not here: I420 pictures (jpeg_yuv.cpp).

#include "libquarrin/photo.h"

#include <climits>
#include <cstring>
#include <ctime>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include <SDL.h>
#include <SDL_image.h>

#include "libquarrin/naming.h"
#include "storage/new_file.h"
#include "util/log.h"

namespace libquarrin
{

constexpr uint32_t BYTES_PER_PIXEL = 3;   // SDL_PIXELFORMAT_RGB24
constexpr uint32_t JPEG_SIDE_MAX = 65500; // JPEG_MAX_DIMENSION of libjpeg

static_assert(sizeof(int) == sizeof(int32_t), "SDL takes sizes as int");

const tagQN_PHOTO_API_S qn_photo_api_jpeg = {JPEG_Write};

// Nothing else reaches SDL: it takes sizes as int and crashes in the save of a surface without pixels, and SDL2_image
// (2.6) crashes where libjpeg refuses the size.
static bool IsPicture(const uint8_t *pu8Pixels, const tagQN_PHOTO_PARAM_S &stParam)
{
    return pu8Pixels != nullptr && stParam.u32Width != 0 && stParam.u32Width <= JPEG_SIDE_MAX &&
           stParam.u32Height != 0 && stParam.u32Height <= JPEG_SIDE_MAX &&
           stParam.u32Pitch >= stParam.u32Width * BYTES_PER_PIXEL && stParam.u32Pitch <= INT_MAX;
}

// Writes the surface as IMG_SaveJPG does, with a close-on-exec descriptor: commands that run meanwhile inherit none.
static int32_t SaveSurface(SDL_Surface *pSurface, const char *pszPath, uint32_t u32Quality)
{
    // SDL2_image (2.6) initialises itself in the first save, without a lock; threads must not meet in there.
    static const int s_s32Formats = IMG_Init(IMG_INIT_JPG);
    (void)s_s32Formats; // without JPEG support the save fails

    if (pszPath == nullptr || !QN_NEWFILE_MakeWay(pszPath))
    {
        return -1;
    }
    SDL_RWops *pFile = SDL_RWFromFile(pszPath, "wbe");
    if (pFile == nullptr)
    {
        return -1;
    }
    return IMG_SaveJPG_RW(pSurface, pFile, 1, static_cast<int>(u32Quality)); // closes the file
}

// SDL's result; -1 when there is nothing to save, with no file touched.
static int32_t SavePixels(const char *pszPath, const uint8_t *pu8Pixels, const tagQN_PHOTO_PARAM_S &stParam)
{
    if (!IsPicture(pu8Pixels, stParam))
    {
        return -1;
    }
    // Kept: R, G, B bytes whatever u32PixelFormat says. SDL only reads the pixels; its interface knows no const.
    SDL_Surface *pSurface = SDL_CreateRGBSurfaceWithFormatFrom(
        const_cast<uint8_t *>(pu8Pixels), static_cast<int>(stParam.u32Width), static_cast<int>(stParam.u32Height),
        static_cast<int>(stParam.u32Depth), static_cast<int>(stParam.u32Pitch), SDL_PIXELFORMAT_RGB24);
    if (pSurface == nullptr)
    {
        return -1;
    }
    const int32_t s32Ret = SaveSurface(pSurface, pszPath, stParam.u32Quality);
    SDL_FreeSurface(pSurface);
    return s32Ret;
}

uint32_t JPEG_Write(const char *pszPath, const uint8_t *pu8Pixels, uint32_t, tagQN_PHOTO_PARAM_S stParam)
{
    QN_TRACE("u32Width=%d,u32Height=%d,u32Depth=%d,u32Pitch=%d,u32PixelFormat=%d\n",
             static_cast<int32_t>(stParam.u32Width), static_cast<int32_t>(stParam.u32Height),
             static_cast<int32_t>(stParam.u32Depth), static_cast<int32_t>(stParam.u32Pitch),
             static_cast<int32_t>(stParam.u32PixelFormat));
    const int32_t s32Ret = SavePixels(pszPath, pu8Pixels, stParam);
    QN_TRACE("ret =%d\n", s32Ret);
    return 0; // Kept: hosts see a failed save in the printed line alone.
}

// Everybody may make folders in the temporary directory, and guess the names of the pictures in it. What is the
// caller's own there nobody else can exchange.
static bool IsOwnFolder(const char *pszPath)
{
    struct stat stStat = {};
    return lstat(pszPath, &stStat) == 0 && S_ISDIR(stStat.st_mode) && stStat.st_uid == geteuid() &&
           (stStat.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

int32_t QN_RecordSaveRGBAsJpeg(tagQN_HANDLER_S *, const uint8_t *pu8Rgb, uint32_t u32Len, tagQN_PHOTO_PARAM_S stParam,
                               const char *pszComment, char *pszOutPath)
{
    // Kept: pictures go to the temporary directory, never to the card, and nothing needs to be mounted.
    const std::string strPath = QN_STORAGE_GenerateImageFile("/tmp", "web_cache", time(nullptr), pszComment, "jpg");
    if (pszOutPath != nullptr)
    {
        memcpy(pszOutPath, strPath.c_str(),
               strPath.size() + 1); // Kept: the caller's buffer is known to be large enough
    }
    // Kept: a failed save shows in the slot's printed line alone.
    const uint8_t *pu8Pixels = IsOwnFolder("/tmp/web_cache") ? pu8Rgb : nullptr;
    return static_cast<int32_t>(qn_photo_api_jpeg.pfnWrite(strPath.c_str(), pu8Pixels, u32Len, stParam));
}

} // namespace libquarrin
