#include "core/common/SecureTextOutputStream.h"

#include <openssl/crypto.h>
#include <wx/stream.h>

#include <cstring>
#include <string>

#include "core/common/Utf8.h"

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
            used += VeskCore::EncodeUTF8Char(code, block + used);
        }
    }
    if (used != 0)
        m_output.Write(block, used);
    OPENSSL_cleanse(block, full ? sizeof block : used);
}
