#include "core/common/UrlCodec.h"

#include <wx/uri.h>

#include <cstring>
#include <string>

namespace VeskCore {

namespace {

bool IsUnreserved(unsigned char byte) {
    // Spelled out rather than isalnum(): the process locale must not matter.
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
           (byte >= '0' && byte <= '9') || std::strchr("-_.~", byte) != nullptr;
}

}  // namespace

wxString URLEncode(const wxString& text) {
    static const char digits[] = "0123456789ABCDEF";
    const std::string bytes = text.utf8_string();
    std::string out;
    out.reserve(bytes.size());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte != 0 && IsUnreserved(byte)) {
            out += c;
        } else {
            out += '%';
            out += digits[byte >> 4];
            out += digits[byte & 0x0F];
        }
    }
    return wxString::FromAscii(out.data(), out.size());
}

bool URLDecode(wxString& text) {
    text = wxURI::Unescape(text);
    return true;
}

}  // namespace VeskCore
