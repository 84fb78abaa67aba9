// Text from Expat and from attribute declarations as wxString. Names and most
// values are ASCII, which needs no UTF-8 decoder: reading a document converts
// several strings per element, so the short road matters.
#pragma once

#include <openssl/crypto.h>
#include <wx/string.h>

#include <cstring>

#include "core/common/Scrub.h"
#include "core/common/Utf8.h"

namespace VeskCore {

inline bool IsAscii(const char* bytes, size_t length) {
    for (size_t i = 0; i < length; ++i)
        if (static_cast<unsigned char>(bytes[i]) >= 0x80)
            return false;
    return true;
}

// Whether `text` reads `bytes`, without converting an ASCII `bytes`.
inline bool EqualsUTF8(const wxString& text, const char* bytes) {
    const size_t length = strlen(bytes);
    if (!IsAscii(bytes, length))
        return text == wxString::FromUTF8(bytes, length);
    if (text.length() != length)
        return false;
    const wxStringCharType* characters = text.wx_str();
    for (size_t i = 0; i < length; ++i)
        if (static_cast<wxUint32>(characters[i]) != static_cast<unsigned char>(bytes[i]))
            return false;
    return true;
}

inline wxString TextFromUTF8(const char* bytes, size_t length) {
    return IsAscii(bytes, length) ? wxString::FromAscii(bytes, length)
                                  : wxString::FromUTF8(bytes, length);
}

// Sets `out` to the text in the buffer it already has, where it fits: one
// string can then take name after name without going to the heap.
// A buffer that must grow is wiped before it goes: it may hold a secret.
inline void AssignUTF8(wxString& out, const char* bytes, size_t length) {
    wchar_t wide[128];
    if (length > out.capacity())
        Scrub(out);
    if (length > sizeof wide / sizeof *wide || !IsAscii(bytes, length)) {
        DecodeUTF8(bytes, length, out);
        return;
    }
    for (size_t i = 0; i < length; ++i)
        wide[i] = static_cast<unsigned char>(bytes[i]);
    out.assign(wide, length);
    OPENSSL_cleanse(wide, length * sizeof(wchar_t));  // the text may be a secret's
}

inline void AssignUTF8(wxString& out, const char* bytes) {
    AssignUTF8(out, bytes != nullptr ? bytes : "", bytes != nullptr ? strlen(bytes) : 0);
}

inline wxString TextFromUTF8(const char* bytes) {
    return bytes != nullptr ? TextFromUTF8(bytes, strlen(bytes)) : wxString();
}

}  // namespace VeskCore
