#include "core/common/Utf8.h"

#include <openssl/crypto.h>

#include <memory>
#include <string>

#include "core/common/Scrub.h"

namespace VeskCore {

// clang-format off
const char trailingBytesForUTF8[256] = {
    0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0, 0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,
    0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0, 0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,
    0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0, 0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,
    0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0, 0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,
    0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0, 0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,
    0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0, 0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,
    1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1, 1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,
    2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2, 3,3,3,3,3,3,3,3,4,4,4,4,5,5,5,5
};
// clang-format on

namespace {

// One sequence of `length` bytes, lead byte first (ConvertUTF's isLegalUTF8).
bool IsLegalSequence(const unsigned char* source, int length) {
    if (length < 1 || length > 4) {
        return false;
    }
    const unsigned char lead = source[0];
    // Continuation bytes after the second one.
    for (int i = 2; i < length; ++i) {
        if (source[i] < 0x80 || source[i] > 0xBF) {
            return false;
        }
    }
    if (length >= 2) {
        const unsigned char second = source[1];
        if (second < 0x80 || second > 0xBF) {
            return false;
        }
        switch (lead) {
            case 0xE0:  // overlong three-byte forms
                if (second < 0xA0) {
                    return false;
                }
                break;
            case 0xED:  // UTF-16 surrogates
                if (second > 0x9F) {
                    return false;
                }
                break;
            case 0xF0:  // overlong four-byte forms
                if (second < 0x90) {
                    return false;
                }
                break;
            case 0xF4:  // above U+10FFFF
                if (second > 0x8F) {
                    return false;
                }
                break;
            default:
                break;
        }
    }
    // Stray continuation bytes and overlong two-byte leads.
    if (lead >= 0x80 && lead < 0xC2) {
        return false;
    }
    return lead <= 0xF4;
}

}  // namespace

bool isLegalUTF8String(const unsigned char* bytes, int length) {
    int at = 0;
    while (at < length) {
        const int trailing = trailingBytesForUTF8[bytes[at]];
        if (trailing >= length - at) {
            return false;
        }
        if (!IsLegalSequence(bytes + at, trailing + 1)) {
            return false;
        }
        at += trailing + 1;
    }
    return true;
}

wxString UTF8ToNative(const wxString& text, bool doubleAmpersands) {
    std::string bytes;
    bytes.reserve(text.length());
    for (wxUniChar c : text) {
        if (c.GetValue() > 0xFF) {
            return wxString();
        }
        bytes += static_cast<char>(c.GetValue());
    }
    wxString out = wxString::FromUTF8(bytes.data(), bytes.size());
    if (doubleAmpersands) {
        out.Replace(wxS("&"), wxS("&&"), true);
    }
    return out;
}

wxString FromUTF8Lenient(const char* bytes, size_t length) {
    wxString text = wxString::FromUTF8(bytes, length);
    if (text.empty() && length > 0) {
        static const wxMBConvUTF8 lenient(wxMBConvUTF8::MAP_INVALID_UTF8_TO_OCTAL);
        text = wxString(bytes, lenient, length);
    }
    return text;
}

size_t EncodeUTF8Char(wxUint32 code, char* out) {
    if (code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
        code = 0xFFFD;
    if (code < 0x80) {
        out[0] = static_cast<char>(code);
        return 1;
    }
    if (code < 0x800) {
        out[0] = static_cast<char>(0xC0 | (code >> 6));
        out[1] = static_cast<char>(0x80 | (code & 0x3F));
        return 2;
    }
    if (code < 0x10000) {
        out[0] = static_cast<char>(0xE0 | (code >> 12));
        out[1] = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out[2] = static_cast<char>(0x80 | (code & 0x3F));
        return 3;
    }
    out[0] = static_cast<char>(0xF0 | (code >> 18));
    out[1] = static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (code & 0x3F));
    return 4;
}

void EncodeUTF8(const wxString& text, std::string& out) {
    Scrub(out);
    const wxStringCharType* characters = text.wx_str();
    const size_t length = text.length();
    char encoded[4];
    size_t size = 0;
    for (size_t i = 0; i < length; ++i)
        size += EncodeUTF8Char(static_cast<wxUint32>(characters[i]), encoded);
    out.reserve(size);
    for (size_t i = 0; i < length; ++i)
        out.append(encoded, EncodeUTF8Char(static_cast<wxUint32>(characters[i]), encoded));
    OPENSSL_cleanse(encoded, sizeof encoded);
}

void DecodeUTF8(const char* bytes, size_t length, wxString& out) {
    Scrub(out);
    const size_t size = wxConvUTF8.ToWChar(nullptr, 0, bytes, length);
    if (size == wxCONV_FAILED || size == 0)
        return;
    std::unique_ptr<wchar_t[]> wide(new wchar_t[size]);
    const size_t converted = wxConvUTF8.ToWChar(wide.get(), size, bytes, length);
    if (converted != wxCONV_FAILED)
        out.assign(wide.get(), converted);
    OPENSSL_cleanse(wide.get(), size * sizeof(wchar_t));
}

}  // namespace VeskCore
