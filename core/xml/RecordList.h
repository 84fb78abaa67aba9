// A list whose entries are all records of one type; a named list only adds
// its own element name.
#pragma once

#include "core/xml/XMLObjectList.h"

namespace VeskCore {

template <class Record>
class RecordList : public XMLObjectList {
  public:
    RecordList() : XMLObjectList(true, false) {}

    wxString ChildElementName() const override { return Record::ElementName(); }
    XMLObject* CreateListElement() const override { return new Record; }
};

}  // namespace VeskCore
