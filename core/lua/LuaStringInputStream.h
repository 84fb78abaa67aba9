// An input stream over a string, or, once a script has attached a function
// with SetFn, one whose reads call that function with the wanted size.
//
// The callback reports a count and nothing else: it cannot hand bytes over.
// A failing callback ends the read by throwing its error text (a C string).
#pragma once

#include <wx/sstream.h>

#include "core/lua/LuaStreamBase.h"

namespace VeskCore {

class VESK_EXPORT CLuaStringInputStream : public CLuaStreamBase, public wxStringInputStream {
  public:
    CLuaStringInputStream() : wxStringInputStream(wxString()) {}
    explicit CLuaStringInputStream(const wxString& text) : wxStringInputStream(text) {}

    // -1 in callback mode: the length of a function's output is not known.
    wxFileOffset GetLength() const override;

  protected:
    size_t OnSysRead(void* buffer, size_t size) override;
    wxFileOffset OnSysTell() const override;
    wxFileOffset OnSysSeek(wxFileOffset offset, wxSeekMode mode) override;
};

}  // namespace VeskCore
