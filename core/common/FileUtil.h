// Directory copy and removal, atomic file replacement, permission tightening
// and close-on-exec control.
//
// Symbolic links: RemoveDirectory never follows one (it removes the link, not
// what it points at). CopyDirectory copies what a link points at, as for any
// other entry, but never descends into a directory it is already copying (a
// link back up the tree, or a destination inside the source).
//
// Paths are wxStrings, handed to the system as UTF-8.
// Thread safety: no shared state; concurrent calls on overlapping trees race
// as the file system does.
#pragma once

#include <wx/string.h>

#include "core/common/Export.h"

namespace VeskCore {

// Copies the tree under `source` into `destination` (note the order). The
// destination and every directory below it are made with mode 0700, not
// recursively: the parent must exist. Without `mayExist` an existing
// destination is a failure; with it, the trees merge and files of the same
// name are overwritten. False only if `source` can't be opened or the
// destination can't be made; failures further down are logged and skipped.
VESK_EXPORT bool CopyDirectory(const wxString& destination, const wxString& source, bool mayExist);

// Removes `path` and everything under it. Failures below are logged and
// skipped; the result tells whether `path` itself is gone.
VESK_EXPORT bool RemoveDirectory(const wxString& path);

// Renames `from` over `to` in one step (rename(2)): a reader of `to` sees the
// old file or the new one, never a mix. Both must be on one file system.
// A failure is logged as numbered message 3006 and gives false.
VESK_EXPORT bool ReplaceFile(const wxString& from, const wxString& to);

// chmod to 0600 for a file, 0700 for a directory (0711 if `traversable`).
// A path that can't be stat'ed gets 0600 tried; failures are silent.
VESK_EXPORT void SecureFileOrDirectory(const wxString& path, bool traversable);

// Clears (inherit) or sets close-on-exec on `fd`. False if fcntl fails.
VESK_EXPORT bool SetInheritable(int fd, bool inherit);

}  // namespace VeskCore
