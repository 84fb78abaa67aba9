#include "core/xml/XMLObjectList.h"

#include <wx/log.h>

namespace VeskCore {

XMLObjectList::XMLObjectList(bool strict, bool optionalContainer)
    : XMLObject(false, strict), m_optionalContainer(optionalContainer) {
    m_children.DeleteContents(true);
}

// While this runs the object is an XMLObjectList and nothing more: its
// element name is the base's, so the source's root doesn't match and no
// children arrive. Only assignment to a finished list copies children.
XMLObjectList::XMLObjectList(XMLObjectList& source)
    : XMLObject(false, source.m_strict), m_optionalContainer(source.m_optionalContainer) {
    m_maxChildren = source.m_maxChildren;
    CopyFrom(source);
}

XMLObjectList& XMLObjectList::operator=(XMLObjectList& source) {
    CopyFrom(source);
    return *this;
}

XMLObjectList::~XMLObjectList() {
    DeleteChildren();
}

void XMLObjectList::SetToDefaults() {
    DeleteChildren();
    XMLObject::SetToDefaults();
}

void XMLObjectList::DeleteChildren() {
    m_children.Clear();
}

XMLObject* XMLObjectList::ElementNameMatches(const wxString& name) {
    auto same = [this](const wxString& a, const wxString& b) {
        return m_strict ? a.Cmp(b) == 0 : a.CmpNoCase(b) == 0;
    };
    if (!m_elementSeen) {
        if (same(GetElementName(), name))
            return this;
        if (!m_optionalContainer)
            return nullptr;
    }
    if (!same(ChildElementName(), name))
        return nullptr;
    if (m_maxChildren != 0 && m_children.GetCount() >= m_maxChildren) {
        wxLogError(
            wxS("XMLObjectList::ElementNameMatches() - Too many child elements "
                "encountered."));
        return nullptr;
    }
    // Appended directly, not through AddChild: parsed lists keep document order
    // even where AddChild sorts.
    XMLObject* child = CreateListElement();
    m_children.Append(child);
    return child;
}

}  // namespace VeskCore
