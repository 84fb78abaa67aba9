// Every numbered message of the library, in one place. A numbered message is
// a record a manager reads: a four-digit event code, then its fields in a
// fixed order, separated by '|'. A trailing '|' is for the system error text
// that wxLogSysError appends as the last field. The forms with the code
// between exclamation marks are distinct messages, not a variant spelling:
// each emitter uses the exact literal named here, and nothing parses them.
#pragma once

#include <wx/chartype.h>

namespace VeskCore::NumberedMessage {

// Sockets: the port is the field, the system error the last one.
inline constexpr const wxChar* kBindFailed = wxS("!3005!bind() to port %d|");
inline constexpr const wxChar* kListenFailed = wxS("!3005!listen() on port %d|");

// Credentials: no machine to seal the private key to; it is written as it is.
inline constexpr const wxChar* kKeyNotSealed = wxS("!3008!3008|");

// The last stop of a thread's exception: the thread's name, then the text.
inline constexpr const wxChar* kThreadDatabaseError = wxS("!3010!3010|Thread '%.128s': %.2048s");
inline constexpr const wxChar* kThreadStandardError = wxS("!5001!5001|Thread '%.128s': %.2048s");
inline constexpr const wxChar* kThreadThrownText = wxS("5001|Thread '%.128s': %.2048s");
inline constexpr const wxChar* kThreadThrownNumber = wxS("5001|Thread '%.128s': %#x");
inline constexpr const wxChar* kThreadUnknownError = wxS("5001|Thread '%.128s': unknown exception");

// Running a program: it could not start, its output could not be read, or it
// failed.
inline constexpr const wxChar* kProgramNotStarted = wxS("3003|%.256s|");
inline constexpr const wxChar* kProgramNotRead = wxS("3004|%.256s|");
inline constexpr const wxChar* kProgramFailed = wxS("3004|%.256s|Exit status %#x");

// Files: the operation, then the path.
inline constexpr const wxChar* kFileStatFailed = wxS("3006|fstat|%.256s|");
inline constexpr const wxChar* kFileMapFailed = wxS("3006|mmap|%.256s|");
inline constexpr const wxChar* kFileRenameFailed = wxS("3006|rename|%s -> %s|%d (%s)");
inline constexpr const wxChar* kFileOpenFailed = wxS("3007|%.256s|");
inline constexpr const wxChar* kFileNotRegular = wxS("3303|%.256s");

}  // namespace VeskCore::NumberedMessage
