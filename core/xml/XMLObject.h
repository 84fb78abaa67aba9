// The base of every record: a class declares its members once, each with one
// AddAttribute call in its constructor, and the record then moves between
// XML, SQL and Lua without further code.
//
// An attribute's name is at once the XML attribute, the SQL column and the
// Lua key; GetElementName() is the XML tag and, with an "s" added, the SQL
// table. Every walk over the attributes (XML attribute order, SQL columns
// and binds, Lua keys) is the order of a hash map of the names, the same in
// every walk; nothing depends on the order of declaration. The names and
// that order are worked out once per class (AttributeLayout).
//
// Ownership: members registered as attributes are the record's own; child
// records are usually members too (a plain XMLObject does not own its
// children; an XMLObjectList does). Thread safety: none; a record belongs to
// one thread at a time.
#pragma once

#include <wx/list.h>
#include <wx/string.h>
#include <wx/txtstrm.h>

#include <string>

#include "core/common/Export.h"
#include "core/common/Maps.h"
#include "core/xml/AttributeTable.h"
#include "core/xml/XMLAttribute.h"

class wxArrayString;
class wxInputStream;
class wxMemoryBuffer;
class wxOutputStream;
class wxSQLite3Database;
class wxSQLite3ResultSet;
class wxSQLite3Statement;
struct XML_ParserStruct;
struct lua_State;

namespace VeskCore {

struct _GUID;
class XMLObject;

// Deletes what it holds only while its DeleteContents flag is set.
WX_DECLARE_LIST_WITH_DECL(XMLObject, XMLObjectPtrList, class VESK_EXPORT);

class VESK_EXPORT XMLObject {
  public:
    // `collectsText`: keep the element's character data. `strict`: element
    // and attribute names match case-sensitively, and parsed attribute names
    // must begin with a lowercase letter.
    XMLObject(bool collectsText, bool strict);
    XMLObject(const XMLObject&) = delete;
    XMLObject& operator=(const XMLObject&) = delete;

    // The virtual functions are declared in the order of their table slots,
    // which hosts built against the library rely on; the groups below them
    // are not virtual.
    virtual ~XMLObject();
    virtual void AddChild(XMLObject* child);
    // Calls back for each attribute in map order, or each child in list
    // order; stops at the first false and returns false.
    virtual bool EnumAttributes(bool (*callback)(const XMLObject* object, const char* name,
                                                 _PrimitiveType type, const void* member,
                                                 void* userData),
                                void* userData) const;
    virtual bool EnumChildObjects(bool (*callback)(const XMLObject* object, const XMLObject* child,
                                                   void* userData),
                                  void* userData) const;
    virtual wxString GetElementName() const { return wxS("-BaseXmlObject-"); }
    virtual bool HasChildElements() const { return m_children.GetCount() != 0; }
    virtual bool IsCollection() const { return false; }
    virtual void PrintAttributes(wxTextOutputStream& stream) const;
    virtual void PrintChildElements(wxTextOutputStream& stream, unsigned int indent) const;
    virtual void SetToDefaults();
    // Pushes {tag = name, [1] = text, attr = {name = "value", ..., [i] =
    // name}, children...}; returns 1.
    virtual int toLua(lua_State* L) const;
    // Indented XML, tabs per level, no declaration; values equal to their
    // default are left out.
    virtual wxOutputStream& ToXML(wxOutputStream& stream, unsigned int indent);
    virtual wxTextOutputStream& ToXML(wxTextOutputStream& stream, unsigned int indent);
    // Statements over the table GetElementName() + "s"; `databaseName` (may
    // be null) prefixes it. Load, update and delete need a primary key and
    // throw wxSQLite3Exception (code -1) without one.
    virtual wxString GetSQLDeleteStatement(const char* databaseName) const;
    virtual wxString GetSQLInsertStatement(const char* databaseName) const;
    virtual wxString GetSQLLoadStatement(const char* databaseName) const;
    virtual wxString GetSQLUpdateStatement(const char* databaseName) const;
    // Return the rows changed; an insert whose key is null reads the new row
    // id into it. Database errors are thrown as wxSQLite3Exception.
    virtual int SQLDelete(wxSQLite3Database& db, const char* databaseName) const;
    virtual int SQLDelete(wxSQLite3Statement& statement) const;
    virtual int SQLInsert(wxSQLite3Database& db, const char* databaseName);
    virtual int SQLInsert(wxSQLite3Statement& statement);
    // Loads the row of the record's primary key (none: the defaults).
    virtual bool SQLLoad(wxSQLite3Database& db, const char* databaseName);
    // Loads the current row of `results` into this record.
    virtual bool SQLLoad(wxSQLite3ResultSet& results);
    virtual int SQLUpdate(wxSQLite3Database& db, const char* databaseName) const;
    virtual int SQLUpdate(wxSQLite3Statement& statement) const;
    // Brings derived attributes up to date before the record is written.
    virtual void BeforePrint() {}
    // Deletes the children held (which must then be on the heap).
    virtual void DeleteChildren();
    virtual XMLObject* ElementNameMatches(const wxString& name);
    // Run when an element's attributes were applied, and when it closes (both
    // also after an SQL load); false aborts the parse or load.
    virtual bool EndAttributes() { return true; }
    virtual bool EndElement() { return true; }
    virtual XMLObject* FindChildElement(const wxString& name);
    virtual void OnUnhandledAttribute(const wxString& name, const wxString& value);
    virtual void OnUnhandledChildElement(const wxString& name);
    virtual bool SetAttribute(const wxString& name, const wxString& value);

    // --- The attribute table ---------------------------------------------
    // A name registered twice keeps its first member. A null name is "".
    void AddAttribute(const char* name, wxMemoryBuffer* value);
    void AddAttribute(const char* name, bool* value);
    void AddAttribute(const char* name, bool* value, bool def);
    void AddAttribute(const char* name, int* value);
    void AddAttribute(const char* name, int* value, int def, bool primaryKey);
    void AddAttribute(const char* name, long long* value);
    void AddAttribute(const char* name, long long* value, long long def, bool primaryKey);
    // A null `def` is no default; the text of wxEmptyString is an empty one.
    void AddAttribute(const char* name, wxString* value, const char* def);
    void AddAttribute(const char* name, wxSecureString* value);
    // The separator of the array's text form; null is ",".
    void AddAttribute(const char* name, wxArrayString* value, const char* separator);
    // Renames an integer attribute, as AddAttribute(newName, ...) would add it.
    void ReplaceAttribute(const char* oldName, const char* newName, int* value, int def,
                          bool primaryKey);

    // Marks a member (filled by code) as having a value (false) or none
    // (true, which also restores its default). SQL binds NULL for a member
    // still marked null. Unknown members are ignored.
    void SetAttributeNull(const void* member, bool isNull);
    const wxString& GetAttributeName(const void* member) const;
    bool AttributeWasParsed(const void* member) const;
    bool ElementWasSeen() const { return m_elementSeen; }

    // A copy through XML: what XML doesn't carry is not copied.
    XMLObject& CopyFrom(XMLObject& source);

    // --- Reading (XML) ---------------------------------------------------
    // Resets the record, then fills it from the document. 0 on success, else
    // Expat's error code (1: no memory), with the error and the text around
    // it logged. A document of another kind leaves the record at its
    // defaults with ElementWasSeen() false, and succeeds. A null separator:
    // no namespace processing.
    int FromXML(wxInputStream& stream, const char* namespaceSeparator);
    int FromXML(const wxString& text, const char* namespaceSeparator);

    // What attribute values read as; false (mostly logged) for bad text.
    static bool Parse(const wxString& value, wxString& out);
    static bool Parse(const wxString& value, wxSecureString& out);
    static bool Parse(const wxString& value, bool& out);
    static bool Parse(const wxString& value, int& out);
    static bool Parse(const wxString& value, long long& out);
    static bool Parse(const wxString& value, wxMemoryBuffer& out);
    static bool Parse(const wxString& value, wxArrayString& out, const char* separator);
    static bool Parse(const wxString& value, _GUID& out);

    // --- Writing (XML) ---------------------------------------------------
    wxString toString();
    static wxString QuoteString(const wxString& text, bool charData);
    static wxString QuoteAttribute(const wxString& text) { return QuoteString(text, false); }
    static wxString QuoteCharData(const wxString& text) { return QuoteString(text, true); }
    // The entries joined by the separator's first character (default ',')
    // and a blank.
    static wxString Print(const wxArrayString& values, const char* separator);

    const XMLObjectPtrList& GetChildren() const { return m_children; }
    const wxString& GetText() const { return m_text; }

  protected:
    void SetParent(XMLObject* parent, XML_ParserStruct* parser);
    bool SetAttributes(const char** attributes);
    void XML_ParseError(XML_ParserStruct* parser, const char* format, ...) const;
    void DestroyTempObjects();
    // The attribute of a name as the record's name rule finds it, or null.
    XMLAttribute* FindAttribute(const wxString& name);

    bool m_strict;
    bool m_collectsText;
    bool m_elementSeen = false;
    wxString m_text;
    XMLObjectPtrList m_children;
    AttributeTable m_attributes;
    XMLObject* m_parent = nullptr;
    XMLObjectPtrList m_tempObjects;

  private:
    // Expat's handlers; the parser is their argument, the current record its
    // user data.
    static void XML_StartElementHandler(void* parser, const char* name, const char** attributes);
    static void XML_EndElementHandler(void* parser, const char* name);
    static void XML_CharacterDataHandler(void* parser, const char* text, int length);
    void StartElementHandler(const wxString& name, const char** attributes,
                             XML_ParserStruct* parser);
    void EndElementHandler(const char* name, XML_ParserStruct* parser);  // name: UTF-8
    void CharacterDataHandler(const wxString& text);
    template <class Work>
    static void Guarded(void* parser, Work work);
    void DestroyPlaceholders();
    void Register(const char* name, const XMLAttribute& attribute);
    XMLAttribute* FindByMember(const void* member);
    const XMLAttribute* PrimaryKey(bool last, wxString* name) const;
    void BindValues(wxSQLite3Statement& statement, const char* operation, bool skipKey,
                    bool* keyBoundNull) const;
};

}  // namespace VeskCore
