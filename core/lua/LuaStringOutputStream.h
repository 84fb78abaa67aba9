// An output stream that gathers what is written into a string (UTF-8 bytes
// become text), or, once a script has attached a function with SetFn, one
// whose writes call that function with the bytes; its numeric result is the
// count written. After SetFn the string no longer grows.
#pragma once

#include <wx/sstream.h>

#include "core/lua/LuaStreamBase.h"

namespace VeskCore {

class VESK_EXPORT CLuaStringOutputStream : public CLuaStreamBase, public wxStringOutputStream {
  public:
    CLuaStringOutputStream() = default;

  protected:
    size_t OnSysWrite(const void* buffer, size_t size) override;
    wxFileOffset OnSysTell() const override;
};

}  // namespace VeskCore
