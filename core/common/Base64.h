// Base64 in both directions, through OpenSSL's base64 filter, so that the text
// matches what `openssl base64` writes and reads.
//
// Thread safety: every function is safe to call from any thread.
#pragma once

#include <wx/string.h>

#include <cstddef>
#include <functional>
#include <string>

#include "core/common/Export.h"

namespace VeskCore {

// Base64 of `data`. With `lineBreaks`, lines of 64 characters, each ending in
// "\n" (the last one too); without, one line and no newline. Empty data gives
// empty text. On an encoder failure: an error is logged, the result is empty.
VESK_EXPORT std::string toBase64StringASCII(const std::string& data, bool lineBreaks);
VESK_EXPORT wxString toBase64String(const std::string& data, bool lineBreaks);

// Decodes `text` (null is empty), after skipping leading white space. Text
// holding a newline is read as line-broken Base64, as `openssl base64 -d`
// reads it: lines must stay below 1024 characters, and the decoder stops
// short at a longer one. Text without a newline is one line of any length.
// Bad input isn't reported: the result is what decoded before it.
VESK_EXPORT std::string FromBase64(const char* text);
VESK_EXPORT std::string fromBase64String(const wxString& text);

// The decoding loop under FromBase64, for callers that keep the bytes
// elsewhere (secrets): hands `sink` each decoded block, in order, from a stack
// buffer that is wiped afterwards. `lines` selects the line-broken form.
void DecodeBase64Blocks(const char* text, size_t length, bool lines,
                        const std::function<void(const char* data, size_t size)>& sink);

}  // namespace VeskCore
