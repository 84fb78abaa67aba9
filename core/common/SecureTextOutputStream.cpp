#include "core/common/SecureTextOutputStream.h"

#include <openssl/crypto.h>
#include <wx/stream.h>

#include <cstring>
#include <string>

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
    // unwiped, so the bytes are made here, in a block on the stack that is
    // wiped when done. Records are written a few bytes at a time: the heap
    // has no part in it.
    const char* newline = m_mode == wxEOL_DOS ? "\r\n" : m_mode == wxEOL_MAC ? "\r" : "\n";
    const size_t newlineSize = std::char_traits<char>::length(newline);
    char block[1024];
    size_t used = 0;
    bool full = false;
    const wxStringCharType* characters = text.wx_str();
    for (size_t i = 0, length = text.length(); i < length; ++i) {
        if (used > sizeof block - 4) {
            m_output.Write(block, used);
            used = 0;
            full = true;
        }
        const wxUint32 code = static_cast<wxUint32>(characters[i]);
        if (code == '\n') {
            memcpy(block + used, newline, newlineSize);
            used += newlineSize;
        } else if (code < 0x80) {
            block[used++] = static_cast<char>(code);
        } else {
            used += EncodeUtf8(code, block + used);
        }
    }
    if (used != 0)
        m_output.Write(block, used);
    OPENSSL_cleanse(block, full ? sizeof block : used);
}
