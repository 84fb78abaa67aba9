// A read-only view of a whole file in memory, for reading large files without
// copying them.
//
// Made by Create(); one implementation per platform. Unmapped or mapped; the
// file stays open while mapped. The view belongs to one thread at a time.
#pragma once

#include <wx/string.h>

#include <cstddef>

#include "core/common/Export.h"

namespace VeskCore {

class VESK_EXPORT CMappedFile {
  public:
    // A new, unmapped object for this platform; the caller owns it.
    static CMappedFile* Create();

    virtual ~CMappedFile() = default;

    // Maps the regular file at `path` read-only (a private mapping: changes to
    // the file after the call may or may not show). Returns the address and
    // sets `length`, or null on failure, with a numbered message logged. An
    // object already mapped is unmapped first, which ends the old view.
    virtual void* Map(const wxString& path, size_t& length) = 0;

    // Ends the view and closes the file; harmless when unmapped. Always true.
    virtual bool Unmap() = 0;

    CMappedFile(const CMappedFile&) = delete;
    CMappedFile& operator=(const CMappedFile&) = delete;

  protected:
    CMappedFile() = default;

    void* m_data = nullptr;  // the mapped address, or null
};

}  // namespace VeskCore
