// Host metadata: the one answer format for questions about the host (files,
// environment variables, listening ports). A query fills a
// CHostMetaDataQueryResult with CHostMetaData items, each a (type,
// identifier) pair with named, possibly multi-valued attributes; the result
// carries a SHA-1 over all of it so that a manager can tell whether anything
// changed without reading the content.
//
// Two orders are kept by the virtual AddChild of the lists and broken only
// by parsing, which appends in document order:
//   CHostMetaDatas: by type, then identifier, both case-insensitively;
//   CHostMetaDataAttributes: by name, then single value, both exactly.
// The digest walks both orders, so it does not depend on the order in which
// a query met things.
//
// Also here: the query and capability messages and the two records of the
// diagnostics exchange, which the host application fills.
//
// Ownership: lists own their children; AddChild and MergeChild take a heap
// object. Thread safety: none; a record belongs to one thread at a time.
#pragma once

#include <wx/arrstr.h>

#include <cstddef>
#include <vector>

#include "core/xml/IdObject.h"
#include "core/xml/RecordList.h"
#include "core/xml/XMLObjectList.h"

namespace VeskCore {

class VESK_EXPORT CHostMetaDataAttribute : public XMLObject {
  public:
    CHostMetaDataAttribute();

    static wxString ElementName() { return wxS("Attribute"); }
    wxString GetElementName() const override { return ElementName(); }

    // The first value, or empty when there is none.
    wxString GetSingleValue() const;
    // Replaces all values by this one.
    void SetSingleValue(const wxString& value);

    wxString name;
    wxArrayString value;  // several values only after a merge
};

class VESK_EXPORT CHostMetaDataAttributes : public RecordList<CHostMetaDataAttribute> {
  public:
    static wxString ElementName() { return wxS("Attributes"); }
    wxString GetElementName() const override { return ElementName(); }

    // Must be a CHostMetaDataAttribute; forwarded to the sorted add.
    void AddChild(XMLObject* child) override;
    // Inserted before the first child with a greater name, or the same name
    // and a greater single value; equal pairs keep their arrival order.
    virtual void AddChild(CHostMetaDataAttribute* attribute);

    // The first child of this name, or null. The walk stops at the first
    // greater name, so in a parsed list out of order it may miss one.
    CHostMetaDataAttribute* GetAttribute(const char* name) const;
    // True with the single value; false with `value` emptied.
    bool GetAttribute(const char* name, wxString& value) const;
};

class VESK_EXPORT CHostMetaData : public XMLObject {
  public:
    CHostMetaData();

    static wxString ElementName() { return wxS("HostMetaData"); }
    wxString GetElementName() const override { return ElementName(); }

    // This record against the pair: type, then identifier, ignoring case.
    int CmpTypeAndIdentifier(const wxString& type, const wxString& identifier) const;

    // A new single-valued attribute, added in order. A null value is empty.
    void AppendAttribute(const char* name, const wxString& value);
    void AppendAttribute(const char* name, const char* value);

    bool GetAttribute(const char* name, wxString& value) const;
    // The single value, empty when absent.
    wxString GetAttribute(const char* name) const;

    // Folds the first value of each of `other`'s attributes in: a value new
    // to an attribute of the same name is added at the end of its array; a
    // new name becomes a new attribute.
    void MergeAttributes(const CHostMetaData& other);

    wxString type;
    wxString identifier;
    CHostMetaDataAttributes attributes;  // a member, written inside the element
};

class VESK_EXPORT CHostMetaDatas : public RecordList<CHostMetaData> {
  public:
    static wxString ElementName() { return wxS("HostMetaDatas"); }
    wxString GetElementName() const override { return ElementName(); }

    // Must be a CHostMetaData; forwarded to the sorted add.
    void AddChild(XMLObject* child) override;
    // Inserted before the node FindInsertionIterator gives (appended when
    // none): an equal pair lands before the one already there.
    virtual void AddChild(CHostMetaData* child);
    // Folds `child` into the record of the same pair (Find), deleting it, or
    // adds it when there is none.
    virtual void MergeChild(CHostMetaData* child);

    // Binary search over positions by CmpTypeAndIdentifier: the node of an
    // equal pair, else the first node greater than the pair; null past the
    // end or for an empty list.
    wxXMLObjectPtrListNode* FindInsertionIterator(const wxString& type, const wxString& identifier);
    // The record the search lands on if its type and identifier equal the
    // pair exactly; null otherwise (the search ignores case, this test does
    // not).
    CHostMetaData* Find(const wxString& type, const wxString& identifier);
    // Find and then AddChild on one search: the record Find gives for the
    // child's pair, or null once the child is added where AddChild puts it.
    CHostMetaData* FindOrAdd(CHostMetaData* child);

    void DeleteChildren() override;
    XMLObject* ElementNameMatches(const wxString& name) override;

  private:
    // The search probes positions; a wxList offers only a walk per probe,
    // which made 10,000 sockets cost seconds. The nodes by position, kept in
    // step by AddChild and rebuilt when the list changed otherwise.
    void SyncIndex();
    size_t InsertionPosition(const wxString& type, const wxString& identifier);

    std::vector<wxXMLObjectPtrListNode*> m_index;
};

class VESK_EXPORT CHostMetaDataQueryCapability : public XMLObject {
  public:
    // A null command, or a version of 0, leaves that attribute at its
    // default; canMonitor is always stored.
    CHostMetaDataQueryCapability(const char* command, int version, bool canMonitor);

    static wxString ElementName() { return wxS("HostMetaDataQueryCapability"); }
    wxString GetElementName() const override { return ElementName(); }

    // An attribute the command reports: a name (when not null), and a value
    // when not null, added in order.
    void AppendAttribute(const char* name, const char* value);

    wxString command;
    int version = 0;
    bool canMonitor = false;
    CHostMetaDataAttributes attributes;
};

class VESK_EXPORT CHostMetaDataQueryCapabilitys : public XMLObjectList {
  public:
    CHostMetaDataQueryCapabilitys() : XMLObjectList(true, false) {}

    static wxString ElementName() { return wxS("HostMetaDataQueryCapabilities"); }
    wxString GetElementName() const override { return ElementName(); }
    wxString ChildElementName() const override {
        return CHostMetaDataQueryCapability::ElementName();
    }
    XMLObject* CreateListElement() const override {
        return new CHostMetaDataQueryCapability(nullptr, 0, false);
    }
};

class VESK_EXPORT CHostMetaDataQuery : public CIdObject {
  public:
    static constexpr int kArgs = 16;

    CHostMetaDataQuery();

    static wxString ElementName() { return wxS("HostMetaDataQuery"); }
    wxString GetElementName() const override { return ElementName(); }

    wxString args[kArgs];  // "arg1" to "arg16"
    wxString query;
};

class VESK_EXPORT CHostMetaDataQuerys : public RecordList<CHostMetaDataQuery> {
  public:
    static wxString ElementName() { return wxS("HostMetaDataQueries"); }
    wxString GetElementName() const override { return ElementName(); }
};

class VESK_EXPORT CHostMetaDataQueryResult : public CIdObject {
  public:
    CHostMetaDataQueryResult();

    static wxString ElementName() { return wxS("HostMetaDataQueryResult"); }
    wxString GetElementName() const override { return ElementName(); }

    // "hash": SHA-1 over each item's type and identifier and each of its
    // attributes' name and values, in list order, as UTF-8 without
    // separators; upper-case hex pairs with colons. "hashAlg": "SHA1". A text
    // with no UTF-8 form is left out (logged). Always true.
    bool ComputeHash();

    int commandVersion = 0;
    wxString hash;
    wxString hashAlg;
    CHostMetaDatas items;
};

class VESK_EXPORT CHostMetaDataQueryResults : public RecordList<CHostMetaDataQueryResult> {
  public:
    static wxString ElementName() { return wxS("HostMetaDataQueryResults"); }
    wxString GetElementName() const override { return ElementName(); }
};

// The diagnostics exchange; nothing in this library fills them.
class VESK_EXPORT CDiagnostic : public XMLObject {
  public:
    CDiagnostic();

    static wxString ElementName() { return wxS("Diagnostic"); }
    wxString GetElementName() const override { return ElementName(); }

    wxString token;
};

class VESK_EXPORT CCreateDiagnostic : public XMLObject {
  public:
    CCreateDiagnostic();

    static wxString ElementName() { return wxS("CreateDiagnostic"); }
    wxString GetElementName() const override { return ElementName(); }

    long long maximumUncompressedFileSize = 0;
    wxString items;
};

}  // namespace VeskCore
