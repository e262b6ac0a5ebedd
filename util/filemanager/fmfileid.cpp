#include "FMFileID.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <tuple>

#include "os/RtOs.h"

namespace {

// The position of each byte's digits in the text, in printed order.
constexpr char PATTERN[] = "{HHHHHHHH-HHHH-HHHH-HHHH-HHHHHHHHHHHH}";
static_assert(sizeof(PATTERN) - 1 == FMFILEID_TEXT_LENGTH);

bool ReadDigits(const CRtString& text, uint8_t (&bytes)[16]) {
    if (text.size() != FMFILEID_TEXT_LENGTH)
        return false;
    size_t digits = 0;
    for (size_t i = 0; i < FMFILEID_TEXT_LENGTH; ++i) {
        if (PATTERN[i] != 'H') {
            if (text[i] != PATTERN[i])
                return false;
            continue;
        }
        uint8_t digit = 0;
        const char* const at = text.data() + i;
        if (std::from_chars(at, at + 1, digit, 16).ec != std::errc())
            return false;
        uint8_t& byte = bytes[digits++ / 2];
        byte = static_cast<uint8_t>(byte << 4 | digit);
    }
    return true;
}

} // namespace

void CoCreateFMFileID(FMFileID& id) {
    uint8_t bytes[sizeof(FMFileID)];
    RtOs::CreateGuid(bytes);
    std::memcpy(&id, bytes, sizeof(id));
}

CRtString FMFileIDToString(const FMFileID& id) {
    char text[64] = {};
    std::snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  uint32_t{id.Data1}, id.Data2, id.Data3, id.Data4[0], id.Data4[1], id.Data4[2],
                  id.Data4[3], id.Data4[4], id.Data4[5], id.Data4[6], id.Data4[7]);
    return text;
}

void FMFileIDFromString(const CRtString& text, FMFileID& id) {
    uint8_t bytes[16] = {};
    if (!ReadDigits(text, bytes)) {
        id = FMFileID_None;
        return;
    }
    id.Data1 = uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 |
               uint32_t{bytes[3]};
    id.Data2 = static_cast<uint16_t>(bytes[4] << 8 | bytes[5]);
    id.Data3 = static_cast<uint16_t>(bytes[6] << 8 | bytes[7]);
    std::memcpy(id.Data4, bytes + 8, sizeof(id.Data4));
}

bool operator<(const FMFileID& a, const FMFileID& b) {
    const int last = std::memcmp(a.Data4, b.Data4, sizeof(a.Data4));
    const int equal = 0;
    return std::tie(a.Data1, a.Data2, a.Data3, last) < std::tie(b.Data1, b.Data2, b.Data3, equal);
}
