// UTF-8 validation and the conversion of UTF-8 bytes held in a wxString into
// text.
//
// Thread safety: every function is safe to call from any thread.
#pragma once

#include <wx/string.h>

#include <string>

#include "core/common/Export.h"

namespace VeskCore {

// Number of continuation bytes announced by a lead byte, as in the Unicode
// Consortium's ConvertUTF code (0 for 0x00-0xBF, up to 5 for 0xFC-0xFF).
extern const char trailingBytesForUTF8[256];

// True if the `length` bytes are well-formed UTF-8: sequences of one to four
// bytes, no overlong forms, no surrogates, nothing above U+10FFFF. A length
// below 1 is true whatever `bytes` is (null included).
VESK_EXPORT bool isLegalUTF8String(const unsigned char* bytes, int length);

// `text` holds raw bytes, one per character (wxString::From8BitData), that
// are UTF-8: returns the text they encode, every "&" doubled if
// `doubleAmpersands`. Bytes that aren't valid UTF-8, or a character above
// U+00FF (which can't be a raw byte), give the empty text.
VESK_EXPORT wxString UTF8ToNative(const wxString& text, bool doubleAmpersands);

// Conversions for text that may be a secret. wx's own conversions cache the
// bytes inside the string and leave temporaries in freed memory; these make
// one buffer the caller can wipe (Scrub) and wipe their own.
//
// One character as UTF-8 into out[0..3]; what is not a Unicode scalar value
// becomes U+FFFD. Returns the number of bytes.
VESK_EXPORT size_t EncodeUTF8Char(wxUint32 code, char* out);
// `out` = the UTF-8 of `text`, in a buffer allocated once at its final size.
VESK_EXPORT void EncodeUTF8(const wxString& text, std::string& out);
// `out` = the text of the bytes, or empty when they are not UTF-8. Whatever
// `out` held before is wiped.
VESK_EXPORT void DecodeUTF8(const char* bytes, size_t length, wxString& out);

// UTF-8 bytes as text for a reader (log lines, error messages): bytes that
// are not UTF-8 appear as octal escapes instead of the whole text being lost.
VESK_EXPORT wxString FromUTF8Lenient(const char* bytes, size_t length);

}  // namespace VeskCore
