// CMappedFile over open(2) and mmap(2).
#pragma once

#include "core/common/MappedFile.h"

namespace VeskCore {

class CMappedFileUnix : public CMappedFile {
  public:
    CMappedFileUnix() = default;
    ~CMappedFileUnix() override;

    // Numbered messages: 3007 (open), "3006|fstat", 3303 (not a regular
    // file), "3006|mmap" (an empty file lands here: Linux refuses a mapping of
    // length 0).
    void* Map(const wxString& path, size_t& length) override;
    bool Unmap() override;

  private:
    int m_fd = -1;        // the open file while mapped, else -1
    size_t m_length = 0;  // length of the mapping
};

}  // namespace VeskCore
