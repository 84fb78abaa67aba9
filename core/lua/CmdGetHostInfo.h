// Native commands: functions with the shape of an HTTP request handler that
// scripts call through the module table. The library has one, GetHostInfo.
#pragma once

#include <wx/stream.h>
#include <wx/string.h>

#include "core/common/Export.h"

namespace VeskCore {

// request text, request body, status (in: 200), status text (in: "OK"),
// response body, and a stream to read the response from instead (in: null).
// Returns whether the command handled the request.
using NativeCommand = bool (*)(const wxString& request, wxInputStream& in, int& status,
                               wxString& statusText, wxOutputStream& out,
                               wxInputStream*& replacement);

// Writes "Hostname: <fully qualified name>\r\n" to `out`. One lookup serves
// eleven calls in a row; a host whose name can't be had writes nothing.
// Always true, status untouched. Any thread; the lookup may block.
VESK_EXPORT bool GetHostInfo(const wxString& request, wxInputStream& in, int& status,
                             wxString& statusText, wxOutputStream& out,
                             wxInputStream*& replacement);

// The lookup behind GetHostInfo: false when the host's own name can't be had.
using HostNameLookup = bool (*)(wxString& name);
// Replaces the lookup (tests count them); returns the one it replaces.
VESK_EXPORT HostNameLookup SetHostNameLookup(HostNameLookup lookup);

}  // namespace VeskCore
