// A text output stream for writing secrets (records with passwords as XML):
// unlike wxTextOutputStream, it leaves no converted copy of the text behind
// in freed memory.
//
// Text is written as UTF-8 whatever converter the base would use; newlines are
// translated by the stream's line-ending mode (wxEOL_DOS "\r\n", wxEOL_MAC
// "\r", anything else "\n").
//
// Thread safety: none, as for any stream.
#pragma once

#include <wx/txtstrm.h>

#include "core/common/Export.h"

class VESK_EXPORT wxSecureTextOutputStream : public wxTextOutputStream {
  public:
    // `stream` must outlive this object.
    explicit wxSecureTextOutputStream(wxOutputStream& stream, wxEOL mode = wxEOL_NATIVE)
        : wxTextOutputStream(stream, mode) {}
    ~wxSecureTextOutputStream() override = default;

    // Writes straight to the underlying stream; its temporaries are wiped.
    void WriteString(const wxString& text) override;
};
