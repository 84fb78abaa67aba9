// Percent-encoding of text for URLs.
//
// Thread safety: every function is safe to call from any thread.
#pragma once

#include <wx/string.h>

#include "core/common/Export.h"

namespace VeskCore {

// Each UTF-8 byte of `text` as it is if it is an ASCII letter or digit or one
// of "-_.~", otherwise as "%XX" (upper-case digits).
VESK_EXPORT wxString URLEncode(const wxString& text);

// Replaces `text` by its percent-decoded form, read as UTF-8 (wxURI::Unescape:
// text that doesn't decode to valid UTF-8 becomes empty). Always true.
VESK_EXPORT bool URLDecode(wxString& text);

}  // namespace VeskCore
