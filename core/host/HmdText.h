// The host's names and texts (file names, environment entries, process
// names, file lines) are bytes. They become text as UTF-8, or, where they
// are not valid UTF-8, byte for byte as Latin-1: nothing is lost, the text is
// the same on every run, and a manager still sees which entry it is.
//
// Thread safety: no shared state.
#pragma once

#include <wx/string.h>

#include <cstddef>
#include <string>

namespace VeskCore {

wxString HostText(const char* bytes, size_t length);
inline wxString HostText(const std::string& bytes) {
    return HostText(bytes.data(), bytes.size());
}

// Appends the UTF-8 form of `bytes` by the same rule to `out`.
void AppendHostText(const char* bytes, size_t length, std::string& out);

// Appends UTF-8 text to `out` in one pass (wx's converter makes two, the
// first to count). Meant for text that AppendHostText made; a byte that
// starts no well-formed sequence still becomes U+FFFD rather than garbage.
void AppendUtf8(const char* bytes, size_t length, wxString& out);

// True if the bytes are well-formed UTF-8 (no overlong forms, surrogates,
// or code points above U+10FFFF).
bool IsUtf8(const char* bytes, size_t length);

}  // namespace VeskCore
