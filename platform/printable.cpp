// Text that is safe to show. See the header.

#include "printable.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

// Characters by their first and last code point.
struct RANGE_S
{
    uint32_t u32First;
    uint32_t u32Last;
};

static const RANGE_S HIDDEN[] = {
    {0x00, 0x1f},     {0x7f, 0x9f},     // C0, delete, C1
    {0x2028, 0x2029},                   // separators of lines and paragraphs
    {0x61c, 0x61c},   {0x200e, 0x200f}, // marks of direction
    {0x202a, 0x202e}, {0x2066, 0x2069}, // embeddings, overrides, isolates
};

// Bytes of a character by its first one, 0 for a byte that begins none.
static size_t LengthBy(uint8_t u8First)
{
    if (u8First < 0x80)
    {
        return 1;
    }
    if (u8First < 0xc2 || u8First > 0xf4)
    {
        return 0;
    }
    return u8First < 0xe0 ? 2 : (u8First < 0xf0 ? 3 : 4);
}

// Bytes of the character that begins here, 0 for none that is valid.
static size_t Decode(const std::string &strText, size_t uAt, uint32_t &u32Point)
{
    const auto byteAt = [&strText](size_t u)
    {
        return static_cast<uint8_t>(strText[u]);
    };
    const uint8_t u8First = byteAt(uAt);
    const size_t uLen = LengthBy(u8First);
    if (uLen == 0 || uAt + uLen > strText.size())
    {
        return 0;
    }
    u32Point = uLen == 1 ? u8First : u8First & (0x7fu >> uLen);
    for (size_t u = 1; u < uLen; ++u)
    {
        if ((byteAt(uAt + u) & 0xc0) != 0x80)
        {
            return 0;
        }
        u32Point = (u32Point << 6) | (byteAt(uAt + u) & 0x3fu);
    }
    const bool bOverlong = (uLen == 3 && u32Point < 0x800) || (uLen == 4 && u32Point < 0x10000);
    const bool bNone = (u32Point >= 0xd800 && u32Point <= 0xdfff) || u32Point > 0x10ffff;
    return bOverlong || bNone ? 0 : uLen;
}

static bool IsHidden(uint32_t u32Point)
{
    for (const RANGE_S &stRange : HIDDEN)
    {
        if (u32Point >= stRange.u32First && u32Point <= stRange.u32Last)
        {
            return true;
        }
    }
    return false;
}

static void AppendEscape(std::string &strSafe, uint32_t u32Point)
{
    char szEscape[16];
    switch (u32Point)
    {
    case '\n':
        strSafe += "\\n";
        return;
    case '\r':
        strSafe += "\\r";
        return;
    case '\t':
        strSafe += "\\t";
        return;
    default:
        (void)snprintf(szEscape, sizeof(szEscape), u32Point < 0x80 ? "\\x%02x" : "\\u%04x", u32Point); // fits
        strSafe += szEscape;
    }
}

std::string PLATFORM_Printable(const std::string &strText)
{
    std::string strSafe;
    strSafe.reserve(strText.size());
    for (size_t u = 0; u < strText.size();)
    {
        uint32_t u32Point = 0;
        const size_t uLen = Decode(strText, u, u32Point);
        if (uLen == 0)
        {
            char szEscape[8];
            (void)snprintf(szEscape, sizeof(szEscape), "\\x%02x", static_cast<uint8_t>(strText[u])); // fits
            strSafe += szEscape;
        }
        else if (IsHidden(u32Point))
        {
            AppendEscape(strSafe, u32Point);
        }
        else
        {
            strSafe.append(strText, u, uLen);
        }
        u += uLen == 0 ? 1 : uLen;
    }
    return strSafe;
}

bool PLATFORM_IsUtf8(const std::string &strText)
{
    size_t uLen = 1;
    for (size_t u = 0; u < strText.size() && uLen != 0; u += uLen)
    {
        uint32_t u32Point = 0;
        uLen = Decode(strText, u, u32Point);
    }
    return uLen != 0;
}
