// Writing records as indented XML: one walk over the attribute table per
// element, values equal to their default left out, everything through a text
// stream that keeps no plain copy of what it writes.
#include <openssl/crypto.h>
#include <wx/arrstr.h>
#include <wx/log.h>
#include <wx/sstream.h>

#include <cstdlib>

#include "core/common/Base64.h"
#include "core/common/Overloaded.h"
#include "core/common/Scrub.h"
#include "core/common/SecureString.h"
#include "core/common/SecureTextOutputStream.h"
#include "core/common/StreamUtil.h"
#include "core/common/StringUtil.h"
#include "core/common/Utf8.h"
#include "core/xml/XMLObject.h"
#include "core/xml/XMLObjectList.h"
#include "core/xml/XMLText.h"

namespace VeskCore {
namespace {

bool IsLeftOut(const wxString& name, const XMLAttribute& attribute) {
    return attribute.Visit(Overloaded{
        [](const wxMemoryBuffer& buffer) { return buffer.GetDataLen() == 0; },
        [](const wxSecureString& secret) { return secret.length() == 0; },
        [](const wxArrayString& values) {
            return values.empty() || (values.size() == 1 && values[0].empty());
        },
        [&](UnknownAttributeType unknown) {
            wxLogError(wxS("PrintAttributes() - unknown type '%d' for attribute '%.64s'"),
                       unknown.code, name);
            return true;
        },
        [&](const auto&) { return attribute.HoldsDefault(); }});
}

// The plain text of a secret goes to the stream as it is, unquoted, and is
// wiped from every buffer it passed through.
void WriteSecret(wxTextOutputStream& stream, const wxSecureString& secret) {
    char* plain = nullptr;
    size_t length = 0;
    secret.getContentsUtf8(plain, length, false);
    if (plain == nullptr)
        return;
    wxString text;
    DecodeUTF8(plain, length, text);
    stream << text;
    Scrub(text);
    OPENSSL_cleanse(plain, length);
    free(plain);
}

void WriteValue(wxTextOutputStream& stream, const XMLAttribute& attribute) {
    attribute.Visit(Overloaded{
        [&](const wxMemoryBuffer& buffer) {
            stream << toBase64String(
                std::string(static_cast<const char*>(buffer.GetData()), buffer.GetDataLen()),
                false);
        },
        [&](const bool& flag) { stream << toString(flag); },
        [&](const int& number) { stream << toString(number); },
        [&](const long long& number) { stream << toString(number); },
        [&](const wxString& text) { stream << XMLObject::QuoteAttribute(text); },
        [&](const wxSecureString& secret) { WriteSecret(stream, secret); },
        [&](const wxArrayString& values) {
            stream << XMLObject::QuoteAttribute(XMLObject::Print(values, attribute.m_default.text));
        },
        [](UnknownAttributeType) {}});
}

// The replacement of a character in attribute text, or null when it stays.
// Only ASCII is ever replaced: in UTF-8 no other character has a byte below
// 0x80, so this is the same rule on characters as on bytes.
const wchar_t* EscapeOf(wxUint32 code, bool charData) {
    if (charData && (code == 9 || code == 10 || code == 13 || code == 34 || code == 39))
        return nullptr;
    switch (code) {
        case 9:
            return L"&#x9;";
        case 10:
            return L"&#xA;";
        case 13:
            return L"&#xD;";
        case 34:
            return L"&quot;";
        case 38:
            return L"&amp;";
        case 39:
            return L"&apos;";
        case 60:
            return L"&lt;";
        case 62:
            return L"&gt;";
        default:
            // XML can't carry other control characters: they become U+FFFD.
            return code < 32 || code == 127 ? L"\xFFFD" : nullptr;
    }
}

}  // namespace

wxOutputStream& XMLObject::ToXML(wxOutputStream& stream, unsigned int indent) {
    wxSecureTextOutputStream text(stream, wxEOL_NATIVE);
    ToXML(text, indent);
    return stream;
}

wxTextOutputStream& XMLObject::ToXML(wxTextOutputStream& stream, unsigned int indent) {
    BeforePrint();
    Indent(stream, indent, '\t');
    stream << wxS("<") << GetElementName();
    PrintAttributes(stream);
    if (!HasChildElements() && m_text.empty()) {
        stream << wxS(" />\n");
        return stream;
    }
    stream << wxS(">\n");
    PrintChildElements(stream, indent + 1);
    if (!m_text.empty())
        stream << QuoteCharData(m_text) << wxS("\n");
    Indent(stream, indent, '\t');
    stream << wxS("</") << GetElementName() << wxS(">\n");
    return stream;
}

void XMLObject::PrintAttributes(wxTextOutputStream& stream) const {
    for (const auto& entry : m_attributes) {
        if (IsLeftOut(entry.first, entry.second))
            continue;
        stream << wxS(" ") << entry.first << wxS("=\"");
        WriteValue(stream, entry.second);
        stream << wxS("\"");
    }
}

void XMLObject::PrintChildElements(wxTextOutputStream& stream, unsigned int indent) const {
    for (XMLObject* child : m_children)
        child->ToXML(stream, indent);
}

wxString XMLObject::toString() {
    wxStringOutputStream out(nullptr, wxConvUTF8);
    ToXML(out, 0);
    return out.GetString();
}

wxString XMLObject::QuoteString(const wxString& text, bool charData) {
    const wxStringCharType* characters = text.wx_str();
    const size_t length = text.length();
    size_t clean = 0;
    while (clean < length &&
           EscapeOf(static_cast<wxUint32>(characters[clean]), charData) == nullptr)
        ++clean;
    if (clean == length)
        return text;  // nothing to quote: the text itself
    wxString quoted(characters, clean);
    quoted.reserve(length + 16);
    for (size_t i = clean; i < length; ++i) {
        if (const wchar_t* escape = EscapeOf(static_cast<wxUint32>(characters[i]), charData))
            quoted += escape;
        else
            quoted += characters[i];
    }
    return quoted;
}

wxString XMLObject::Print(const wxArrayString& values, const char* separator) {
    wxString joiner(separator != nullptr && separator[0] != '\0' ? CharFromByte(separator[0])
                                                                 : wxUniChar(','));
    joiner += ' ';
    wxString joined;
    for (const wxString& value : values) {
        if (!joined.empty())
            joined += joiner;
        joined += value;
    }
    return joined;
}

wxOutputStream& XMLObjectList::ToXML(wxOutputStream& stream, unsigned int indent) {
    return XMLObject::ToXML(stream, indent);
}

wxTextOutputStream& XMLObjectList::ToXML(wxTextOutputStream& stream, unsigned int indent) {
    if (m_children.empty() && m_text.empty())
        return stream;  // an empty list is absent, not an empty element
    if (m_optionalContainer && m_attributes.empty()) {
        PrintChildElements(stream, indent);
        return stream;
    }
    return XMLObject::ToXML(stream, indent);
}

}  // namespace VeskCore
