// A memory output stream that scripts can make with no arguments: it starts
// empty and grows as it is written. Read what it holds back through a
// wx.MemoryInputStream made of it.
#pragma once

#include <wx/mstream.h>

#include "core/common/Export.h"

namespace VeskCore {

class VESK_EXPORT wxMyMemoryOutputStream : public wxMemoryOutputStream {
  public:
    wxMyMemoryOutputStream() : wxMemoryOutputStream(nullptr, 0) {}
};

}  // namespace VeskCore
