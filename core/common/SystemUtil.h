// Running a command and catching what it prints, user names, and the two
// clocks.
//
// Thread safety: every function may be called from any thread.
#pragma once

#include <wx/string.h>

#include "core/common/Export.h"

namespace VeskCore {

// Runs `"program" arguments 2>&1` through /bin/sh and collects its output
// (standard output and error mixed, in pipe order; read as UTF-8, or byte for
// byte as Latin-1 where it isn't valid UTF-8) into `output`, which is left as
// it was only when the command could not be started. The program path is
// quoted here; `arguments` reaches the shell as it stands, so the caller
// quotes it. True only if the command exited by itself with code 0 and
// reading met no error. With `logErrors`, failures are logged as numbered
// messages 3003 (start), 3004 (read error, or "Exit status %#x" with the raw
// wait status); without, nothing is logged. Blocks until the command ends.
VESK_EXPORT bool Execute(const wxString& program, const wxString& arguments, wxString& output,
                         bool logErrors);

// The login name of the numeric user id in `uid` (text that isn't a number
// reads as 0). False, with `name` emptied, if the lookup fails; true with
// `name` left alone if there is no such user, so callers empty it first. The
// first parameter is not read.
VESK_EXPORT bool LookupUID(const wxString& unused, const wxString& uid, wxString& name);

// Wall clock, milliseconds since the epoch.
VESK_EXPORT long long TimeNowMillis();

// Monotonic milliseconds cut to 32 bits: wraps after about 49.7 days, so spans
// are taken by unsigned subtraction.
VESK_EXPORT unsigned int SystemTickCount();

// The longest plain sleep: nothing can wake one, so a mistaken count (a
// script's math.huge) must not hold a thread for weeks.
constexpr unsigned long kLongestSleepMs = 24UL * 60 * 60 * 1000;

// Sleeps `msec` milliseconds, at most kLongestSleepMs.
VESK_EXPORT void SleepMilliseconds(unsigned long msec);

// Kept for callers (and Lua); this platform installs no crash handler.
VESK_EXPORT void InitCrashHandler(const wxString& unused1, const wxString& unused2);

}  // namespace VeskCore
