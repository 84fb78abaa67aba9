// Where Unzip puts files: places under one destination folder, reached one
// component at a time from a descriptor of that folder without following a
// link (O_NOFOLLOW at every step), so that neither an archive nor what
// already lies in the destination can make a write land outside it.
//
// Ownership: a target owns the descriptor of its destination, a slot the
// descriptors of its folder and of the file it made.
// Thread safety: an object belongs to one thread at a time.
#pragma once

#include <wx/string.h>

#include <ctime>
#include <string>

namespace VeskCore {

// The place of one file: its folder, held open, and its last name.
class CUnzipSlot {
  public:
    CUnzipSlot() = default;
    ~CUnzipSlot();
    CUnzipSlot(const CUnzipSlot&) = delete;
    CUnzipSlot& operator=(const CUnzipSlot&) = delete;

    // Whether a regular file of `size` bytes stands there (a link is none).
    bool IsFileOfSize(long long size) const;
    // A new empty file with `mode` (before the umask), in place of whatever
    // non-directory stood there. False when that can't be had (a directory
    // in the way); the slot then has no file.
    bool Create(int mode);
    // The made file, or -1.
    int File() const { return m_file; }
    // Closes the made file; false when close(2) reports a late write error.
    bool CloseFile();
    // Sets the modification time of the file, or of whatever stands at the
    // place (a link itself, not its target); the access time stays.
    void SetModified(time_t when) const;

  private:
    friend class CUnzipTarget;
    int m_folder = -1;
    int m_file = -1;
    std::string m_leaf;
};

class CUnzipTarget {
  public:
    // `destination` is made (mode 0700, all levels) when the first place
    // needs it.
    explicit CUnzipTarget(const wxString& destination) : m_destination(destination) {}
    ~CUnzipTarget();
    CUnzipTarget(const CUnzipTarget&) = delete;
    CUnzipTarget& operator=(const CUnzipTarget&) = delete;

    // The place of `name` (relative, without ".." components; see
    // IsContainedEntryName), its folders made with mode 0700. False when a
    // folder can't be made or opened, or is a link or a file.
    bool Place(const std::string& name, CUnzipSlot& slot);

  private:
    bool OpenDestination();

    wxString m_destination;
    int m_root = -1;
};

}  // namespace VeskCore
