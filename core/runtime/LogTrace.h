// Trace lines, switched by named masks, and the log functions Lua sees.
//
// A trace line is "[mask] text", emitted at the wx message level to whatever
// log target the host installed. A mask is enabled when it matches, as a
// wildcard subject, an entry of wx's trace mask list. The list is owned by wx
// and unguarded: change it at start-up or from one thread at a time, and only
// through TraceMasksSet/Add/Remove (or the app.trace settings), which keep
// the disabled path cheap; wx's own AddTraceMask goes unseen until then.
//
// Thread safety: every function may be called from any thread. A line written
// on a thread without a log target of its own goes straight to the host's
// target (which must therefore be thread-safe) instead of waiting in wx's
// queue for the main thread.
#pragma once

#include <cstdarg>
#include <string>

#include "core/common/Export.h"

class wxString;

namespace VeskCore {

// Native commands name their trace mask by subsystem; only TraceCmd has one
// ("Cmd"), every other value stands for the empty mask.
enum _TraceSubsystem { TraceCmd = 0, TraceNone };

// True when logging is on, a target is active, and `mask` matches an entry of
// the trace mask list. A null mask is the empty string.
VESK_EXPORT bool LogTraceIsEnabled(const wxString& mask);
VESK_EXPORT bool LogTraceIsEnabled(const char* mask);

// printf-style trace line under `mask`. Nothing is formatted when the mask is
// disabled. Text beyond the 4096-byte line buffer is dropped silently.
VESK_EXPORT void LogTrace(const char* mask, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
VESK_EXPORT void LogTrace(_TraceSubsystem subsystem, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
VESK_EXPORT void LogTraceV(const char* mask, const char* format, va_list args)
    __attribute__((format(printf, 2, 0)));

// The run-time switches behind the settings "app.trace", "app.trace+" and
// "app.trace-". Texts are UTF-8.
//
// Replaces the list by the comma-separated entries of `list` (empty entries
// dropped, blanks kept, duplicates kept). An empty text clears the list.
VESK_EXPORT void TraceMasksSet(const std::string& list);
// Appends `mask` as one entry, commas and all.
VESK_EXPORT void TraceMasksAdd(const std::string& mask);
// Removes the first entry equal to `mask`, if any.
VESK_EXPORT void TraceMasksRemove(const std::string& mask);
// The entries joined by ",", in list order.
VESK_EXPORT std::string TraceMasksGet();

}  // namespace VeskCore
