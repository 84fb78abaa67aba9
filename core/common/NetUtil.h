// Waits on sockets that another thread can end, and the socket helpers
// around them.
//
// A wakeable event is a pair of descriptors (read end, write end) of a
// non-blocking, close-on-exec datagram socket pair; CRunnable::Awaken writes
// 8 bytes to the write end of the pair a thread was given, and a thread
// waiting in WakeableSelect on the read end returns at once. Waits use
// ppoll, so descriptors of any number work.
//
// Descriptors are plain integers; whoever made one closes it.
// Thread safety: every function may be called from any thread; one wait
// belongs to one thread.
#pragma once

#include <wx/string.h>

#include "core/common/Export.h"

namespace VeskCore {

// Makes a wakeable event: `events` becomes a calloc array of the two
// descriptors (the caller frees it) and `eventCount` 2. `sockets` and
// `socketCount` are not used. False (logged), with `events` null and the
// count 0, when the pair can't be made.
VESK_EXPORT bool MakeWakeable(int* sockets, unsigned long socketCount, unsigned long*& events,
                              unsigned long& eventCount);

// Waits until a socket of `readSockets` is readable, one of `writeSockets`
// writable, one of either in error, or the event `events[0]` is written to,
// at most `timeoutMilliseconds` (0xFFFFFFFF: for ever). Entries of -1 are
// skipped. On a positive result the ready readers and then the ready
// writers are counted into `readCount`, the readers moved to the front of
// `readSockets`; `writeCount` is 0; `errorSockets` is a calloc array (the
// caller frees it) of the sockets in error, `errorCount` long; one wake of
// the event is taken. 0 is a time-out ("timeout" in `errorText`), a negative
// result a failure of the wait (its text; a signal ends the wait too), both
// with the counts 0 and `errorSockets` untouched.
VESK_EXPORT int WakeableSelect(unsigned long* events, unsigned long eventCount, int* readSockets,
                               unsigned long& readCount, int* writeSockets,
                               unsigned long& writeCount, unsigned int timeoutMilliseconds,
                               int*& errorSockets, unsigned long& errorCount, wxString& errorText);

VESK_EXPORT void CloseEvent(unsigned long event);

// An IPv6 socket that takes IPv4 peers too (IPV6_V6ONLY off), or -1.
VESK_EXPORT int CreateDualStackSocket(int type, int protocol);

// A listening TCP socket on `port`: dual stack where the system has IPv6,
// else IPv4; on the wildcard address with `anyAddress`, else on loopback
// only. Close-on-exec. -1 (logged, the failures of bind and listen as
// "!3005!...") on failure.
VESK_EXPORT int CreateListenSocket(bool anyAddress, int port, int backlog);

// Whether the peer of a connected socket is 127.0.0.1 or ::1 (or ::1's
// IPv4-mapped form of 127.0.0.1) exactly; other addresses of the loopback
// network are not.
VESK_EXPORT bool PeerIsLoopback(int socket);

// Whether `host` is a dotted quad of four decimal parts of at most 255.
VESK_EXPORT bool IsIPv4Host(const wxString& host);

// Accepts a connection from `listener`: close-on-exec, TCP_NODELAY, no
// lingering close. The peer's address goes into `address` (at most
// `length` bytes; `length` becomes its size). -1 with errno on failure.
VESK_EXPORT int AcceptConnection(int listener, void* address, unsigned int& length);

}  // namespace VeskCore
