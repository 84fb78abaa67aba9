// The base of records kept in SQL tables: an integer primary key, "id".
// No element of its own: leaves name themselves.
#pragma once

#include "core/xml/XMLObject.h"

namespace VeskCore {

class VESK_EXPORT CIdObject : public XMLObject {
  public:
    explicit CIdObject(bool strict);

    int id = 0;  // 0 until stored or read; left out of XML and Lua while 0
};

}  // namespace VeskCore
