#include "core/api/MyMemoryInputStream.h"

namespace VeskCore {

wxMyMemoryInputStream::wxMyMemoryInputStream(const wxMemoryOutputStream& source)
    : MemoryInputBytes{[&source] {
          wxMemoryBuffer copy;
          const size_t length = static_cast<size_t>(source.GetLength());
          if (length != 0)
              copy.SetDataLen(source.CopyTo(copy.GetWriteBuf(length), length));
          return copy;
      }()},
      wxMemoryInputStream(bytes.GetData(), bytes.GetDataLen()) {}

}  // namespace VeskCore
