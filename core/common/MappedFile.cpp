#include "core/common/MappedFile.h"

#include "core/common/linux/MappedFileUnix.h"

namespace VeskCore {

CMappedFile* CMappedFile::Create() {
    return new CMappedFileUnix();
}

}  // namespace VeskCore
