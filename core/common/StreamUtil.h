// Helpers over wx streams, so that they serve files, memory, sockets (BIO
// adapters) and Lua-backed streams alike.
//
// Thread safety: a stream is used by one thread at a time.
#pragma once

#include <wx/stream.h>
#include <wx/txtstrm.h>

#include <cstddef>

#include "core/common/Export.h"

namespace VeskCore {

// Called with each run of bytes after it has been written; false refuses it.
using CopyWatcher = bool (*)(void* context, const void* data, size_t size);

// Bytes from the current position of `in` to its end; the position is kept.
// A stream that can't tell or seek gives 0 (a failed seek to the end is
// logged).
VESK_EXPORT long long StreamSize(wxInputStream& in);

// Writes `c` `count` times.
VESK_EXPORT void Indent(wxTextOutputStream& out, unsigned int count, char c);

// Copies `in` to its end into `out`, then Sync()s `out` if `sync`. `watcher`
// (may be null) sees the written bytes in order. A read error ends the copy.
// A write error or a refusal of the watcher drops the rest of that block only:
// `in` is drained to its end in any case (a connection must be read out), and
// the result is false. Errors are logged.
VESK_EXPORT bool CopyStream(wxInputStream& in, wxOutputStream& out, bool sync, CopyWatcher watcher,
                            void* context);

}  // namespace VeskCore
