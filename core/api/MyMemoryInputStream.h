// A memory input stream over a copy of what a memory output stream holds,
// which is how scripts read back what they wrote. wx's own constructor from
// an output stream asserts (and prints a call stack) when the output stream
// is empty, which for a script is an ordinary case: here it gives an empty
// stream.
#pragma once

#include <wx/buffer.h>
#include <wx/mstream.h>

#include "core/common/Export.h"

namespace VeskCore {

namespace detail {
// Made before the stream that reads it, and destroyed after it.
struct MemoryInputBytes {
    wxMemoryBuffer bytes;
};
}  // namespace detail

class VESK_EXPORT wxMyMemoryInputStream : private detail::MemoryInputBytes,
                                          public wxMemoryInputStream {
  public:
    explicit wxMyMemoryInputStream(const wxMemoryOutputStream& source);
};

}  // namespace VeskCore
