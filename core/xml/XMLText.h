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
    if (length > out.capacity())
        Scrub(out);
    if (!IsAscii(bytes, length)) {
        DecodeUTF8(bytes, length, out);
        return;
    }
    // ASCII widens in place. The characters are the string's own buffer
    // (strings are never shared here), so no copy of the text is made.
    out.resize(length);
    auto* characters = const_cast<wchar_t*>(out.wx_str());
    for (size_t i = 0; i < length; ++i)
        characters[i] = static_cast<unsigned char>(bytes[i]);
}

inline void AssignUTF8(wxString& out, const char* bytes) {
    if (bytes == nullptr)
        bytes = "";
    // The usual short ASCII text in one pass: widened while its end is found.
    wchar_t wide[64];
    size_t length = 0;
    unsigned char byte;
    while ((byte = static_cast<unsigned char>(bytes[length])) != 0 && byte < 0x80 &&
           length < sizeof wide / sizeof *wide)
        wide[length++] = byte;
    if (byte == 0) {
        if (length > out.capacity())
            Scrub(out);
        out.assign(wide, length);
    } else {
        AssignUTF8(out, bytes, length + strlen(bytes + length));
    }
    OPENSSL_cleanse(wide, length * sizeof *wide);  // the text may be a secret's
}

inline wxString TextFromUTF8(const char* bytes) {
    return bytes != nullptr ? TextFromUTF8(bytes, strlen(bytes)) : wxString();
}

// A string per thread and `Tag` for text needed only while one call runs:
// it keeps its buffer from element to element, where a string of the call's
// own would go to the heap each time. A call that runs inside another one
// with the same tag (a parse started from a record's handler) gets a string
// of its own. The text is wiped when the call ends, since it may be a
// secret's; a buffer grown large for one long value is released.
template <class Tag>
class ScratchText {
  public:
    ScratchText() : m_text(Depth()++ == 0 ? Shared() : m_own) {}
    ~ScratchText() {
        if (&m_text == &m_own || m_text.capacity() > kKeptCapacity) {
            Scrub(m_text);
        } else {
            OPENSSL_cleanse(const_cast<wchar_t*>(m_text.wx_str()),
                            (m_text.capacity() + 1) * sizeof(wchar_t));
            m_text.clear();
        }
        --Depth();
    }
    ScratchText(const ScratchText&) = delete;
    ScratchText& operator=(const ScratchText&) = delete;

    wxString& operator*() { return m_text; }

  private:
    static constexpr size_t kKeptCapacity = 256;
    static int& Depth() {
        thread_local int depth = 0;
        return depth;
    }
    static wxString& Shared() {
        thread_local wxString text;
        return text;
    }

    wxString m_own;
    wxString& m_text;
};

}  // namespace VeskCore
