// wxLogSysError for this build. wx's own macro names its record key with a
// narrow string literal, which wxNO_IMPLICIT_WXSTRING_ENCODING refuses to
// convert; this one hands wx the same key as a wxString, so the record is the
// one wxLogSysError makes: an error-level line with " (error N: text)"
// appended by wx, and the code stored under "wx.sys_error" for log targets.
//
//   VESK_LOG_SYS_ERROR(wxS("format"), args...)        the code is errno now
//   VESK_LOG_SYS_ERROR(code, wxS("format"), args...)  an explicit code
//
// Take errno into a variable right after the failing call and pass it
// explicitly when anything may run in between.
#pragma once

#include <wx/log.h>
#include <wx/string.h>

namespace VeskCore {

inline const wxString& SysErrorLogKey() {
    static const wxString key = wxString::FromAscii(wxLOG_KEY_SYS_ERROR_CODE);
    return key;
}

}  // namespace VeskCore

#define VESK_LOG_SYS_ERROR               \
    wxDO_LOG_IF_ENABLED_WITH_FUNC(Error, \
                                  MaybeStore(::VeskCore::SysErrorLogKey(), wxSysErrorCode()).Log)
