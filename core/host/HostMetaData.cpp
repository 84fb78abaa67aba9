#include "core/host/HostMetaData.h"

#include <openssl/evp.h>
#include <openssl/objects.h>

#include <algorithm>
#include <cstdint>
#include <cwchar>
#include <memory>
#include <string>

#include "core/common/HexCodec.h"
#include "core/http/OpenSslUtil.h"

namespace VeskCore {

namespace {

wxString Text(const char* utf8) {
    return utf8 != nullptr ? wxString::FromUTF8(utf8) : wxString();
}

// Whether `a` sorts before `b` in an attribute list: name, then single value.
bool AttributeBefore(const CHostMetaDataAttribute& a, const CHostMetaDataAttribute& b) {
    const int byName = a.name.compare(b.name);
    return byName < 0 || (byName == 0 && a.GetSingleValue().compare(b.GetSingleValue()) < 0);
}

}  // namespace

// --- CHostMetaDataAttribute ------------------------------------------------

CHostMetaDataAttribute::CHostMetaDataAttribute() : XMLObject(false, true) {
    AddAttribute("name", &name, "");
    AddAttribute("value", &value, ",");
}

wxString CHostMetaDataAttribute::GetSingleValue() const {
    return value.IsEmpty() ? wxString() : value[0];
}

void CHostMetaDataAttribute::SetSingleValue(const wxString& single) {
    value.Clear();
    value.Add(single);
}

// --- CHostMetaDataAttributes -----------------------------------------------

void CHostMetaDataAttributes::AddChild(XMLObject* child) {
    AddChild(static_cast<CHostMetaDataAttribute*>(child));
}

void CHostMetaDataAttributes::AddChild(CHostMetaDataAttribute* attribute) {
    for (auto* node = m_children.GetFirst(); node != nullptr; node = node->GetNext()) {
        if (AttributeBefore(*attribute, *static_cast<CHostMetaDataAttribute*>(node->GetData()))) {
            m_children.Insert(node, attribute);
            return;
        }
    }
    m_children.Append(attribute);
}

CHostMetaDataAttribute* CHostMetaDataAttributes::GetAttribute(const char* name) const {
    const wxString wanted = Text(name);
    for (XMLObject* child : m_children) {
        auto* attribute = static_cast<CHostMetaDataAttribute*>(child);
        const int order = attribute->name.compare(wanted);
        if (order == 0)
            return attribute;
        if (order > 0)
            break;
    }
    return nullptr;
}

bool CHostMetaDataAttributes::GetAttribute(const char* name, wxString& value) const {
    const CHostMetaDataAttribute* attribute = GetAttribute(name);
    value = attribute != nullptr ? attribute->GetSingleValue() : wxString();
    return attribute != nullptr;
}

// --- CHostMetaData ---------------------------------------------------------

CHostMetaData::CHostMetaData() : XMLObject(false, true) {
    AddAttribute("type", &type, "");
    AddAttribute("identifier", &identifier, "");
    XMLObject::AddChild(&attributes);
}

namespace {

// wxString::CmpNoCase, starting behind the characters both texts share:
// they fold alike, and neighbours in a sorted list share most of theirs, so
// the locale's folding is asked for a few characters instead of all. Texts
// with a NUL are left to wx, which compares them piece by piece.
int CompareNoCase(const wxString& a, const wxString& b) {
    const wchar_t* const p = a.wc_str();
    const wchar_t* const q = b.wc_str();
    const size_t shorter = std::min(a.length(), b.length());
    size_t i = 0;
    while (i < shorter && p[i] == q[i] && p[i] != L'\0')
        ++i;
    if (wcslen(p + i) != a.length() - i || wcslen(q + i) != b.length() - i)
        return a.CmpNoCase(b);
    return wcscasecmp(p + i, q + i);
}

}  // namespace

int CHostMetaData::CmpTypeAndIdentifier(const wxString& otherType,
                                        const wxString& otherIdentifier) const {
    const int byType = CompareNoCase(type, otherType);
    return byType != 0 ? byType : CompareNoCase(identifier, otherIdentifier);
}

void CHostMetaData::AppendAttribute(const char* name, const wxString& value) {
    auto* attribute = new CHostMetaDataAttribute;
    attribute->name = Text(name);
    attribute->SetAttributeNull(&attribute->name, false);
    attribute->SetSingleValue(value);
    attribute->SetAttributeNull(&attribute->value, false);
    attributes.AddChild(attribute);
}

void CHostMetaData::AppendAttribute(const char* name, const char* value) {
    AppendAttribute(name, Text(value));
}

bool CHostMetaData::GetAttribute(const char* name, wxString& value) const {
    return attributes.GetAttribute(name, value);
}

wxString CHostMetaData::GetAttribute(const char* name) const {
    wxString value;
    attributes.GetAttribute(name, value);
    return value;
}

void CHostMetaData::MergeAttributes(const CHostMetaData& other) {
    for (const XMLObject* child : other.attributes.GetChildren()) {
        const auto& incoming = static_cast<const CHostMetaDataAttribute&>(*child);
        const wxString value = incoming.GetSingleValue();
        const std::string name = incoming.name.utf8_string();
        CHostMetaDataAttribute* present = attributes.GetAttribute(name.c_str());
        if (present == nullptr)
            AppendAttribute(name.c_str(), value);
        else if (present->value.Index(value, true) == wxNOT_FOUND)
            present->value.Add(value);
    }
}

// --- CHostMetaDatas --------------------------------------------------------

void CHostMetaDatas::SyncIndex() {
    const size_t count = m_children.GetCount();
    if (m_index.size() == count && (count == 0 || (m_index.front() == m_children.GetFirst() &&
                                                   m_index.back() == m_children.GetLast())))
        return;
    m_index.clear();
    m_index.reserve(count);
    for (auto* node = m_children.GetFirst(); node != nullptr; node = node->GetNext())
        m_index.push_back(node);
}

size_t CHostMetaDatas::InsertionPosition(const wxString& type, const wxString& identifier) {
    SyncIndex();
    long low = 0;
    long high = static_cast<long>(m_index.size()) - 1;
    while (low <= high) {
        const long mid = (low + high) / 2;
        const int order = static_cast<const CHostMetaData*>(m_index[mid]->GetData())
                              ->CmpTypeAndIdentifier(type, identifier);
        if (order == 0)
            return static_cast<size_t>(mid);
        if (order < 0)
            low = mid + 1;
        else
            high = mid - 1;
    }
    return static_cast<size_t>(low);
}

wxXMLObjectPtrListNode* CHostMetaDatas::FindInsertionIterator(const wxString& type,
                                                              const wxString& identifier) {
    const size_t position = InsertionPosition(type, identifier);
    return position < m_index.size() ? m_index[position] : nullptr;
}

CHostMetaData* CHostMetaDatas::Find(const wxString& type, const wxString& identifier) {
    wxXMLObjectPtrListNode* node = FindInsertionIterator(type, identifier);
    if (node == nullptr)
        return nullptr;
    auto* record = static_cast<CHostMetaData*>(node->GetData());
    return record->identifier.compare(identifier) == 0 && record->type.compare(type) == 0 ? record
                                                                                          : nullptr;
}

CHostMetaData* CHostMetaDatas::FindOrAdd(CHostMetaData* child) {
    const size_t position = InsertionPosition(child->type, child->identifier);
    if (position < m_index.size()) {
        auto* record = static_cast<CHostMetaData*>(m_index[position]->GetData());
        if (record->identifier.compare(child->identifier) == 0 &&
            record->type.compare(child->type) == 0)
            return record;
        m_index.insert(m_index.begin() + static_cast<std::ptrdiff_t>(position),
                       m_children.Insert(m_index[position], child));
    } else {
        m_index.push_back(m_children.Append(child));
    }
    return nullptr;
}

void CHostMetaDatas::AddChild(XMLObject* child) {
    AddChild(static_cast<CHostMetaData*>(child));
}

void CHostMetaDatas::AddChild(CHostMetaData* child) {
    const size_t position = InsertionPosition(child->type, child->identifier);
    if (position == m_index.size()) {
        m_index.push_back(m_children.Append(child));
        return;
    }
    m_index.insert(m_index.begin() + static_cast<std::ptrdiff_t>(position),
                   m_children.Insert(m_index[position], child));
}

void CHostMetaDatas::MergeChild(CHostMetaData* child) {
    CHostMetaData* present = Find(child->type, child->identifier);
    if (present == nullptr) {
        AddChild(child);
        return;
    }
    present->MergeAttributes(*child);
    delete child;
}

void CHostMetaDatas::DeleteChildren() {
    m_index.clear();
    XMLObjectList::DeleteChildren();
}

XMLObject* CHostMetaDatas::ElementNameMatches(const wxString& name) {
    m_index.clear();  // parsing appends behind the index's back
    return XMLObjectList::ElementNameMatches(name);
}

// --- Capabilities and queries ----------------------------------------------

CHostMetaDataQueryCapability::CHostMetaDataQueryCapability(const char* commandName,
                                                           int commandVersion, bool monitor)
    : XMLObject(false, true) {
    AddAttribute("command", &command, "");
    AddAttribute("version", &version, 0, false);
    AddAttribute("canMonitor", &canMonitor, false);
    XMLObject::AddChild(&attributes);
    if (commandName != nullptr) {
        command = Text(commandName);
        SetAttributeNull(&command, false);
    }
    if (commandVersion != 0) {
        version = commandVersion;
        SetAttributeNull(&version, false);
    }
    canMonitor = monitor;
    SetAttributeNull(&canMonitor, false);
}

void CHostMetaDataQueryCapability::AppendAttribute(const char* name, const char* value) {
    auto* attribute = new CHostMetaDataAttribute;
    if (name != nullptr) {
        attribute->name = Text(name);
        attribute->SetAttributeNull(&attribute->name, false);
    }
    if (value != nullptr) {
        attribute->SetSingleValue(Text(value));
        attribute->SetAttributeNull(&attribute->value, false);
    }
    attributes.AddChild(attribute);
}

CHostMetaDataQuery::CHostMetaDataQuery() : CIdObject(true) {
    for (int i = 0; i < kArgs; ++i)
        AddAttribute(wxString::Format(wxS("arg%d"), i + 1).utf8_string().c_str(), &args[i], "");
    AddAttribute("query", &query, "");
}

// --- Results ---------------------------------------------------------------

CHostMetaDataQueryResult::CHostMetaDataQueryResult() : CIdObject(true) {
    AddAttribute("commandVersion", &commandVersion, 0, false);
    AddAttribute("hash", &hash, "");
    AddAttribute("hashAlg", &hashAlg, "");
    XMLObject::AddChild(&items);
}

namespace {

bool IsScalarValue(wchar_t c) {
    return static_cast<uint32_t>(c) < 0xD800 ||
           (static_cast<uint32_t>(c) > 0xDFFF && static_cast<uint32_t>(c) <= 0x10FFFF);
}

// The UTF-8 of a text into the digest, in pieces through a buffer on the
// stack: no copy is made, neither of a value as long as a file search's
// lines nor of the many short texts of 10,000 ports. The bytes are those of
// the wxString overload, which keeps the texts with no UTF-8 form (it leaves
// them out, with its log line).
void DigestText(EVP_MD_CTX* context, const wxString& text) {
    static_assert(sizeof(wchar_t) == 4, "a wxString holds UTF-32 here");
    const wchar_t* const chars = text.wc_str();
    const size_t length = text.length();
    if (!std::all_of(chars, chars + length, IsScalarValue)) {
        EVP_DigestUpdate(context, text);
        return;
    }
    unsigned char buffer[16384];
    size_t held = 0;
    for (size_t i = 0; i < length; ++i) {
        if (held > sizeof buffer - 4) {
            ::EVP_DigestUpdate(context, buffer, held);
            held = 0;
        }
        const auto c = static_cast<uint32_t>(chars[i]);
        if (c < 0x80) {
            buffer[held++] = static_cast<unsigned char>(c);
        } else if (c < 0x800) {
            buffer[held++] = static_cast<unsigned char>(0xC0 | c >> 6);
            buffer[held++] = static_cast<unsigned char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            buffer[held++] = static_cast<unsigned char>(0xE0 | c >> 12);
            buffer[held++] = static_cast<unsigned char>(0x80 | (c >> 6 & 0x3F));
            buffer[held++] = static_cast<unsigned char>(0x80 | (c & 0x3F));
        } else {
            buffer[held++] = static_cast<unsigned char>(0xF0 | c >> 18);
            buffer[held++] = static_cast<unsigned char>(0x80 | (c >> 12 & 0x3F));
            buffer[held++] = static_cast<unsigned char>(0x80 | (c >> 6 & 0x3F));
            buffer[held++] = static_cast<unsigned char>(0x80 | (c & 0x3F));
        }
    }
    ::EVP_DigestUpdate(context, buffer, held);
}

}  // namespace

bool CHostMetaDataQueryResult::ComputeHash() {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          &EVP_MD_CTX_free);
    const EVP_MD* digest = EVP_sha1();
    EVP_DigestInit(context.get(), digest);
    for (const XMLObject* child : items.GetChildren()) {
        const auto& item = static_cast<const CHostMetaData&>(*child);
        DigestText(context.get(), item.type);
        DigestText(context.get(), item.identifier);
        for (const XMLObject* entry : item.attributes.GetChildren()) {
            const auto& attribute = static_cast<const CHostMetaDataAttribute&>(*entry);
            DigestText(context.get(), attribute.name);
            for (const wxString& value : attribute.value)
                DigestText(context.get(), value);
        }
    }
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal(context.get(), bytes, &length);
    hash = toHexString(std::string(reinterpret_cast<const char*>(bytes), length), false);
    SetAttributeNull(&hash, false);
    hashAlg = Text(OBJ_nid2sn(EVP_MD_type(digest)));
    SetAttributeNull(&hashAlg, false);
    return true;
}

// --- Diagnostics -----------------------------------------------------------

CDiagnostic::CDiagnostic() : XMLObject(false, true) {
    AddAttribute("token", &token, "");
}

CCreateDiagnostic::CCreateDiagnostic() : XMLObject(false, true) {
    AddAttribute("maximumUncompressedFileSize", &maximumUncompressedFileSize, 0, false);
    AddAttribute("items", &items, "");
}

}  // namespace VeskCore
