#include "core/common/SecureTextOutputStream.h"

#include <openssl/crypto.h>
#include <wx/stream.h>

#include <string>

#include "core/common/Scrub.h"

namespace {

// Encodes one code point as UTF-8; what isn't a Unicode scalar value becomes
// U+FFFD. Returns the number of bytes (1 to 4) written to `out`.
size_t EncodeUtf8(wxUint32 code, char* out) {
    if (code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
        code = 0xFFFD;
    }
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

}  // namespace

void wxSecureTextOutputStream::WriteString(const wxString& text) {
    // wx's own UTF-8 conversion goes through temporary buffers that are freed
    // unwiped, so the bytes are made here, in one buffer sized up front so
    // that it never moves.
    const char* newline = m_mode == wxEOL_DOS ? "\r\n" : m_mode == wxEOL_MAC ? "\r" : "\n";
    const size_t newlineSize = std::char_traits<char>::length(newline);
    char encoded[4];
    size_t size = 0;
    for (wxUniChar c : text) {
        size += c == wxUniChar('\n') ? newlineSize : EncodeUtf8(c.GetValue(), encoded);
    }
    std::string out;
    out.reserve(size);
    for (wxUniChar c : text) {
        if (c == wxUniChar('\n')) {
            out.append(newline, newlineSize);
        } else {
            out.append(encoded, EncodeUtf8(c.GetValue(), encoded));
        }
    }
    m_output.Write(out.data(), out.size());
    VeskCore::Scrub(out);
    OPENSSL_cleanse(encoded, sizeof encoded);
}
