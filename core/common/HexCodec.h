// Hexadecimal text of bytes and back: upper-case pairs, optionally separated
// by ":", read back with ":" or "-" (or nothing) between the pairs, as MAC
// addresses and certificate fingerprints are written.
//
// Thread safety: every function is safe to call from any thread.
#pragma once

#include <wx/buffer.h>
#include <wx/string.h>

#include <cstddef>
#include <string>

#include "core/common/Export.h"

namespace VeskCore {

// "DE:AD", or "DEAD" when `compact`. Empty input gives empty text.
VESK_EXPORT wxString toHexString(const std::string& data, bool compact);
VESK_EXPORT wxString toHexString(const wxMemoryBuffer& data, bool compact);

// The bytes of `text` after every ":" and "-" is dropped. An odd count of
// digits logs an error and gives nothing; a pair that isn't hexadecimal logs
// an error and is skipped, the rest still decoded (so a short result is the
// only sign besides the log). A pair is read as wxString::ToULong reads it, so
// " F" and "+F" pass as 0x0F.
VESK_EXPORT std::string fromHexString(const wxString& text);

// fromHexString into `out`: `length` is always set to the decoded size; the
// bytes are copied, and true returned, only if they fit in `capacity` (0 when
// `out` is null).
VESK_EXPORT bool ParseHex(const wxString& text, unsigned char* out, size_t capacity,
                          size_t& length);

// True if fromHexString would decode `text` fully and to at least one byte.
// Logs nothing.
VESK_EXPORT bool isHexString(const wxString& text);

}  // namespace VeskCore
