// A record that is a collection of one kind of child record, which it owns.
// Its children come from XML elements named ChildElementName(), or from the
// rows of the SQL table named after the list's own element (a plural).
#pragma once

#include "core/xml/XMLObject.h"

namespace VeskCore {

class VESK_EXPORT XMLObjectList : public XMLObject {
  public:
    // `optionalContainer`: the list's own element may be absent (children
    // stand directly in the parent), and it is not written when it has no
    // attributes.
    XMLObjectList(bool strict, bool optionalContainer);
    // Copies through XML; see XMLObject::CopyFrom.
    XMLObjectList(XMLObjectList& source);
    XMLObjectList& operator=(XMLObjectList& source);
    ~XMLObjectList() override;

    bool IsCollection() const override { return true; }
    void SetToDefaults() override;
    void DeleteChildren() override;
    XMLObject* ElementNameMatches(const wxString& name) override;
    wxOutputStream& ToXML(wxOutputStream& stream, unsigned int indent) override;
    wxTextOutputStream& ToXML(wxTextOutputStream& stream, unsigned int indent) override;

    using XMLObject::SQLDelete;
    using XMLObject::SQLInsert;
    using XMLObject::SQLLoad;
    using XMLObject::SQLUpdate;
    // Each child on the one statement; the sum of the rows changed.
    int SQLDelete(wxSQLite3Statement& statement) const override;
    int SQLInsert(wxSQLite3Statement& statement) override;
    int SQLUpdate(wxSQLite3Statement& statement) const override;
    // A child per row; false when a child's load fails or there are more
    // rows than m_maxChildren allows.
    bool SQLLoad(wxSQLite3ResultSet& results) override;

    virtual wxString ChildElementName() const = 0;
    virtual XMLObject* CreateListElement() const = 0;
    // The first child's statement, prepared once for all; 0 without children.
    virtual int SQLDelete(wxSQLite3Database& db) const;
    virtual int SQLInsert(wxSQLite3Database& db);
    // The list's table: select * from [GetElementName()].
    virtual bool SQLLoad(wxSQLite3Database& db);
    virtual int SQLUpdate(wxSQLite3Database& db) const;

    XMLObjectPtrList& Children() { return m_children; }
    const XMLObjectPtrList& Children() const { return m_children; }

  protected:
    unsigned long long m_maxChildren = 0;  // 0: no limit
    bool m_optionalContainer;
};

}  // namespace VeskCore
