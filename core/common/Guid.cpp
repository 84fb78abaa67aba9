#include "core/common/Guid.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace VeskCore {

static_assert(sizeof(_GUID) == 16, "a GUID is 16 bytes without padding");

bool Parse(const wxString& text, _GUID* guid) {
    if (text.length() != 36 || guid == nullptr) {
        return false;
    }
    unsigned long data1 = 0;
    unsigned short data2 = 0;
    unsigned short data3 = 0;
    unsigned short data4[8] = {};
    const std::string bytes = text.utf8_string();
    const int items = std::sscanf(bytes.c_str(), "%8lx-%4hx-%4hx-%2hx%2hx-%2hx%2hx%2hx%2hx%2hx%2hx",
                                  &data1, &data2, &data3, &data4[0], &data4[1], &data4[2],
                                  &data4[3], &data4[4], &data4[5], &data4[6], &data4[7]);
    if (items != 11) {
        return false;
    }
    guid->Data1 = static_cast<uint32_t>(data1);
    guid->Data2 = data2;
    guid->Data3 = data3;
    for (int i = 0; i < 8; ++i) {
        guid->Data4[i] = static_cast<uint8_t>(data4[i]);
    }
    return true;
}

wxString toString(const _GUID* guid) {
    // Promoted by hand: wx checks each argument's type against its specifier.
    unsigned d[8];
    for (int i = 0; i < 8; ++i) {
        d[i] = guid->Data4[i];
    }
    return wxString::Format(wxS("%08lx-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x"),
                            static_cast<unsigned long>(guid->Data1), unsigned{guid->Data2},
                            unsigned{guid->Data3}, d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]);
}

bool Equals(const _GUID* a, const _GUID* b) {
    return std::memcmp(a, b, sizeof(_GUID)) == 0;
}

void Copy(_GUID* to, const _GUID* from) {
    std::memcpy(to, from, sizeof(_GUID));
}

void Clear(_GUID* guid) {
    std::memset(guid, 0, sizeof(_GUID));
}

}  // namespace VeskCore
