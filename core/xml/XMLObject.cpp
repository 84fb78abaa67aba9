#include "core/xml/XMLObject.h"

#include <openssl/crypto.h>
#include <wx/log.h>
#include <wx/mstream.h>
#include <wx/stream.h>

#include <wx/listimpl.cpp>

#include "core/common/Overloaded.h"
#include "core/runtime/LogTrace.h"
#include "core/xml/XMLMemory.h"
#include "core/xml/XMLText.h"

namespace VeskCore {

WX_DEFINE_LIST(XMLObjectPtrList);

XMLObject::XMLObject(bool collectsText, bool strict)
    : m_strict(strict), m_collectsText(collectsText) {
    m_tempObjects.DeleteContents(true);
}

XMLObject::~XMLObject() {
    m_parent = nullptr;
    DestroyTempObjects();
}

void XMLObject::Register(const char* name, const XMLAttribute& attribute) {
    m_attributes.Add(name, attribute);
}

void XMLObject::AddAttribute(const char* name, wxMemoryBuffer* value) {
    Register(name, XMLAttribute(value));
}
void XMLObject::AddAttribute(const char* name, bool* value) {
    Register(name, XMLAttribute(value));
}
void XMLObject::AddAttribute(const char* name, bool* value, bool def) {
    Register(name, XMLAttribute(value, def));
}
void XMLObject::AddAttribute(const char* name, int* value) {
    Register(name, XMLAttribute(value));
}
void XMLObject::AddAttribute(const char* name, int* value, int def, bool primaryKey) {
    Register(name, XMLAttribute(value, def, primaryKey));
}
void XMLObject::AddAttribute(const char* name, long long* value) {
    Register(name, XMLAttribute(value));
}
void XMLObject::AddAttribute(const char* name, long long* value, long long def, bool primaryKey) {
    Register(name, XMLAttribute(value, def, primaryKey));
}
void XMLObject::AddAttribute(const char* name, wxString* value, const char* def) {
    Register(name, XMLAttribute(value, def));
}
void XMLObject::AddAttribute(const char* name, wxSecureString* value) {
    Register(name, XMLAttribute(value));
}
void XMLObject::AddAttribute(const char* name, wxArrayString* value, const char* separator) {
    Register(name, XMLAttribute(value, separator));
}

void XMLObject::ReplaceAttribute(const char* oldName, const char* newName, int* value, int def,
                                 bool primaryKey) {
    m_attributes.Erase(oldName);
    AddAttribute(newName, value, def, primaryKey);
}

XMLAttribute* XMLObject::FindByMember(const void* member) {
    for (const auto entry : m_attributes)
        if (entry.second.m_value == member)
            return &entry.second;
    return nullptr;
}

void XMLObject::SetAttributeNull(const void* member, bool isNull) {
    XMLAttribute* attribute = FindByMember(member);
    if (attribute == nullptr)
        return;
    attribute->m_isNull = isNull;
    if (isNull)
        attribute->SetToDefault();
}

const wxString& XMLObject::GetAttributeName(const void* member) const {
    static const wxString noName;
    for (const auto& entry : m_attributes)
        if (entry.second.m_value == member)
            return entry.first;
    return noName;
}

bool XMLObject::AttributeWasParsed(const void* member) const {
    for (const auto& entry : m_attributes)
        if (entry.second.m_value == member)
            return entry.second.m_wasParsed;
    return false;
}

bool XMLObject::EnumAttributes(bool (*callback)(const XMLObject*, const char*, _PrimitiveType,
                                                const void*, void*),
                               void* userData) const {
    for (const auto& entry : m_attributes) {
        if (!callback(this, entry.utf8Name.c_str(), entry.second.m_type, entry.second.m_value,
                      userData))
            return false;
    }
    return true;
}

bool XMLObject::EnumChildObjects(bool (*callback)(const XMLObject*, const XMLObject*, void*),
                                 void* userData) const {
    for (const XMLObject* child : m_children)
        if (!callback(this, child, userData))
            return false;
    return true;
}

void XMLObject::AddChild(XMLObject* child) {
    m_children.Append(child);
}

void XMLObject::SetToDefaults() {
    for (const auto entry : m_attributes)
        entry.second.SetToDefault();
    // Children stay attached (they are usually members) and reset themselves;
    // a list has removed its own already.
    for (XMLObject* child : m_children)
        child->SetToDefaults();
    m_elementSeen = false;
    wxString().swap(m_text);
}

void XMLObject::DeleteChildren() {
    m_children.DeleteContents(true);
    m_children.Clear();
    m_children.DeleteContents(false);
}

void XMLObject::DestroyTempObjects() {
    m_tempObjects.Clear();
}

XMLAttribute* XMLObject::FindAttribute(const wxString& name) {
    return m_strict ? m_attributes.Find(name) : m_attributes.FindNoCase(name);
}

bool XMLObject::SetAttribute(const wxString& name, const wxString& value) {
    XMLAttribute* attribute = FindAttribute(name);
    // A secret's text goes neither to the trace nor through wx's conversion,
    // which would leave a copy in the string.
    if (LogTraceIsEnabled("XML"))
        LogTrace("XML", "XMLObject::SetAttribute() - '%s' -> '%.64s'", name.utf8_string().c_str(),
                 attribute != nullptr && attribute->m_type == PT_SECURE_STRING
                     ? "********"
                     : value.utf8_string().c_str());
    if (attribute == nullptr) {
        OnUnhandledAttribute(name, value);
        return true;  // unknown attributes never fail a parse
    }
    const bool parsed = attribute->Visit(Overloaded{
        [&](wxArrayString& values) { return Parse(value, values, attribute->m_default.text); },
        [&](UnknownAttributeType unknown) {
            wxLogError(wxS("XMLObject::SetAttribute() - unknown type '%d' for attribute '%.64s'"),
                       unknown.code, name);
            return false;
        },
        [&](auto& member) { return Parse(value, member); }});
    // A failed value may leave a partial result in the member; nothing undoes it.
    attribute->m_wasParsed = parsed;
    attribute->m_isNull = !parsed;
    return parsed;
}

XMLObject& XMLObject::CopyFrom(XMLObject& source) {
    wxCountingOutputStream counting;
    source.ToXML(counting, 0);
    const size_t size = static_cast<size_t>(counting.GetLength());
    if (size == 0) {
        SetToDefaults();  // an empty list writes nothing
        return *this;
    }
    void* block = XML_Malloc(size);
    if (block == nullptr)
        return *this;
    {
        wxMemoryOutputStream written(block, size);
        source.ToXML(written, 0);
    }
    {
        wxMemoryInputStream reading(block, size);
        FromXML(reading, nullptr);
    }
    XML_Free(block);
    return *this;
}

}  // namespace VeskCore
