// Packing a file or a directory tree into a zip archive and unpacking one,
// on wx's zip streams, with a caller's function that decides entry by entry.
// (Reading Lua packages out of zips is ZipLoader's business.)
//
// Unpacking is hardened against hostile archives. Refused before anything
// is written: an archive whose end record or central directory can't be
// read (an empty or truncated file among them); an entry whose stored name
// is absolute or has a ".." component; a symbolic link entry; a size claim
// beyond kUnzipEntryLimit, or beyond kUnzipTotalLimit for all entries.
// While unpacking, the bytes actually inflated are counted: an entry that
// inflates past its stated size or the limits, or whose CRC or length is
// wrong (logged by wx), fails the call. Files are made by walking from the
// destination one component at a time without following links, so nothing
// lands outside it; an existing non-directory at a file's place is replaced,
// never written through. Unix permission bits stored in an entry are applied
// (set-user-ID, set-group-ID and sticky bits never); no link is ever made.
//
// Packing follows links as stat(2) does, but never descends into a directory
// that is already on its own path (device and inode), so `loop -> .` fails
// the call instead of recursing; a dangling link, a FIFO, a socket or a
// device fails it too. Entries keep the file's mode, as made on Unix.
// Directories get no entries of their own.
//
// Nothing here logs, beyond wx's own stream errors: failures are a false
// result. A stopped Unzip leaves what it wrote (the last file possibly
// partial); a stopped Zip leaves an archive of the entries written so far.
// Names are UTF-8 in the archive.
//
// Thread safety: no shared state; each call works on its own streams.
#pragma once

#include <wx/filename.h>
#include <wx/string.h>
#include <wx/zipstrm.h>

#include "core/common/Export.h"

namespace VeskCore {

// A packing filter's answer. Any value other than 0 and 1 stops; the fixed
// type makes every int a value of the enumeration (without it, 7 would be
// outside its range, and reading it undefined).
enum QXZipAction : int { QXZipInclude = 0, QXZipSkip = 1, QXZipStop = 2 };

// Called with each path (relative to the source's folder) before it is
// packed, and with null after every block of a file being copied, where
// only QXZipInclude lets the copy go on.
using QXZipFilter = QXZipAction (*)(void* context, const wxString* name);
// Called once with null before anything is touched, then with each entry
// about to be written; false stops the call with a false result.
using QXUnzipFilter = bool (*)(void* context, const wxZipEntry* entry);

// The most an entry may inflate to, and all entries of one archive together.
constexpr unsigned long long kUnzipEntryLimit = 256ULL << 20;
constexpr unsigned long long kUnzipTotalLimit = 1ULL << 30;

// Owns one wxZipEntry; taking another deletes the one held (unless it is the
// same).
class VESK_EXPORT wxZipEntryPtr {
  public:
    explicit wxZipEntryPtr(wxZipEntry* entry = nullptr) : m_entry(entry) {}
    ~wxZipEntryPtr() { delete m_entry; }
    wxZipEntryPtr(const wxZipEntryPtr&) = delete;
    wxZipEntryPtr& operator=(const wxZipEntryPtr&) = delete;

    void reset(wxZipEntry* entry) {
        if (entry != m_entry) {
            delete m_entry;
            m_entry = entry;
        }
    }
    wxZipEntry* get() const { return m_entry; }
    wxZipEntry* operator->() const { return m_entry; }
    explicit operator bool() const { return m_entry != nullptr; }

  private:
    wxZipEntry* m_entry;
};

// Unpacks `archive` into the folder that is `destination`'s path (use
// wxFileName::DirName), made with mode 0700 when missing, as are the folders
// of entries. Directory entries are skipped: folders come with their files,
// an empty one is not made. A file already there with the entry's size is
// taken as done and skipped without asking the filter. Entry times become
// the files' modification times. True when every entry was handled (an
// archive without entries included); false for a null filter or an empty
// destination path, and as the header says.
VESK_EXPORT bool Unzip(const wxFileName& archive, const wxFileName& destination,
                       QXUnzipFilter filter, void* context);

// Packs `source` (a file or a directory; its name is the first component of
// every entry) into a new `archive` at the default compression level. An
// empty directory gives an archive without entries. False for a null filter,
// when the archive can't be made, and as ZipIt says.
VESK_EXPORT bool Zip(const wxFileName& archive, const wxFileName& source, QXZipFilter filter,
                     void* context);

// In these three, `base` ends with a separator and `name` is the path under
// it, which is what goes into the archive.
//
// Asks the filter about `name`: QXZipSkip leaves it out (true), another
// refusal stops (false). Then packs it as a directory or a file; anything
// else, or a path gone away, is false.
VESK_EXPORT bool ZipIt(wxZipOutputStream& zip, const wxString& base, const wxString& name,
                       QXZipFilter filter, void* context);
// Packs the entries of a directory (hidden ones too) through ZipIt, stopping
// at the first false; false also for a directory already on its own path.
VESK_EXPORT bool ZipDirectory(wxZipOutputStream& zip, const wxString& base, const wxString& name,
                              QXZipFilter filter, void* context);
// Packs one regular file in blocks of 8192 bytes, asking the filter (with
// null) after each.
VESK_EXPORT bool ZipFile(wxZipOutputStream& zip, const wxString& base, const wxString& name,
                         QXZipFilter filter, void* context);

}  // namespace VeskCore
