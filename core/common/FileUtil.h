// Directory copy and removal, checked removal and renaming of single files,
// atomic file replacement, permission tightening and close-on-exec control.
//
// Every operation here that copies, moves, removes, replaces or changes the
// mode of something refuses an empty path: scripts hand over nil, a table, a
// boolean or a string that starts with NUL as "", and "" must never come to
// mean the current or the root directory. Each refusal is one error line,
// "<Operation>: refusing an empty path", and the call does nothing else.
//
// Symbolic links are never followed out of a tree: RemoveDirectory removes a
// link, not what it points at; CopyDirectory recreates a link as a link with
// the same target. FIFOs, sockets and devices are never opened: CopyDirectory
// skips them, RenameFileChecked and SecureFileOrDirectory refuse them.
//
// Paths are wxStrings, handed to the system as UTF-8.
// Thread safety: no shared state (the process umask is left alone);
// concurrent calls on overlapping trees race as the file system does.
#pragma once

#include <wx/string.h>

#include "core/common/Export.h"

namespace VeskCore {

// Copies the tree under `source` into `destination` (note the order). The
// destination and every directory below it are made with mode 0700, not
// recursively: the parent must exist. Without `mayExist` an existing
// destination is a failure; with it, the trees merge: files, links and other
// non-directories of the same name are replaced, never written through, and
// only a real directory is merged into (a link in its place is left alone and
// logged). `destination` itself and `source` may be links; nothing below them
// is followed.
//
// Regular files are copied with their permission bits (set-user-ID, set-group-ID
// and sticky bits dropped); symbolic links are recreated with the same target,
// even where it is absolute or dangling; FIFOs, sockets and devices are skipped
// with an error line.
//
// False, with an error line, for an empty path, for the root directory as
// destination, for a destination that is the source or lies inside it, if
// `source` can't be opened or if the destination can't be made; failures
// further down are logged and skipped. Real paths are compared, so links and
// ".." hide nothing; a destination that does not exist yet counts as its
// parent's real path plus its own name.
VESK_EXPORT bool CopyDirectory(const wxString& destination, const wxString& source, bool mayExist);

// Removes `path` and everything under it. Failures below are logged and
// skipped; the result tells whether `path` itself is gone. A link (even
// written with a trailing "/") is not emptied: rmdir refuses it. An empty path
// and the root directory (however written) are refused with false.
VESK_EXPORT bool RemoveDirectory(const wxString& path);

// wxRemoveFile(path) once `path` is known not to be empty; an empty path gives
// false with an error line and errno ENOENT, for scripts that ask for the
// system error next.
VESK_EXPORT bool RemoveFileChecked(const wxString& path);

// wxRenameFile(from, to, overwrite) once neither path is empty and neither is,
// or is a link to, a FIFO, socket or device: where rename(2) fails, wx falls
// back to copying, which would open them, waiting for ever on a FIFO or
// writing into a device. A refusal gives false with an error line and errno
// ENOENT (empty path) or EINVAL.
VESK_EXPORT bool RenameFileChecked(const wxString& from, const wxString& to, bool overwrite = true);

// Renames `from` over `to` in one step (rename(2)): a reader of `to` sees the
// old file or the new one, never a mix. Both must be on one file system.
// A failure is logged as numbered message 3006 and gives false; an empty path
// is refused with false.
VESK_EXPORT bool ReplaceFile(const wxString& from, const wxString& to);

// chmod to 0600 for a file, 0700 for a directory (0711 if `traversable`),
// following a link as chmod does. A FIFO, socket or device (or a link to one)
// is left alone with an error line, as is an empty path; any other failure is
// silent.
VESK_EXPORT void SecureFileOrDirectory(const wxString& path, bool traversable);

// Clears (inherit) or sets close-on-exec on `fd`. False if fcntl fails.
VESK_EXPORT bool SetInheritable(int fd, bool inherit);

}  // namespace VeskCore
