#include "core/xml/XMLAttribute.h"

#include <wx/arrstr.h>
#include <wx/log.h>

#include "core/common/Overloaded.h"
#include "core/common/SecureString.h"
#include "core/xml/XMLText.h"

namespace VeskCore {

void XMLAttribute::Init() {
    m_type = static_cast<_PrimitiveType>(-1);
    m_value = nullptr;
    m_default.integer64 = 0;
    m_hasDefault = false;
    m_wasParsed = false;
    m_isPrimaryKey = false;
    m_isNull = true;
}

XMLAttribute::XMLAttribute(wxMemoryBuffer* value) {
    Init();
    m_type = PT_BINARY;
    m_value = value;
}

XMLAttribute::XMLAttribute(bool* value) {
    Init();
    m_type = PT_BOOL;
    m_value = value;
}

XMLAttribute::XMLAttribute(bool* value, bool def) : XMLAttribute(value) {
    m_hasDefault = true;
    m_default.flag = def;
}

XMLAttribute::XMLAttribute(int* value) {
    Init();
    m_type = PT_INT;
    m_value = value;
}

XMLAttribute::XMLAttribute(int* value, int def, bool primaryKey) : XMLAttribute(value) {
    m_hasDefault = true;
    m_default.integer = def;
    m_isPrimaryKey = primaryKey;
}

XMLAttribute::XMLAttribute(long long* value) {
    Init();
    m_type = PT_INT64;
    m_value = value;
}

XMLAttribute::XMLAttribute(long long* value, long long def, bool primaryKey) : XMLAttribute(value) {
    m_hasDefault = true;
    m_default.integer64 = def;
    m_isPrimaryKey = primaryKey;
}

XMLAttribute::XMLAttribute(wxString* value, const char* def) {
    Init();
    m_type = PT_STRING;
    m_value = value;
    m_hasDefault = def != nullptr;
    m_default.text = def;
}

XMLAttribute::XMLAttribute(wxSecureString* value) {
    Init();
    m_type = PT_SECURE_STRING;
    m_value = value;
}

XMLAttribute::XMLAttribute(wxArrayString* value, const char* separator) {
    Init();
    m_type = PT_STRING_ARRAY;
    m_value = value;
    m_hasDefault = true;
    m_default.text = separator;
}

void XMLAttribute::SetToDefault() {
    m_wasParsed = false;
    m_isNull = true;
    Visit(Overloaded{[](wxMemoryBuffer& buffer) { buffer.SetDataLen(0); },
                     [this](bool& flag) { flag = m_hasDefault && m_default.flag; },
                     [this](int& number) { number = m_hasDefault ? m_default.integer : 0; },
                     [this](long long& number) { number = m_hasDefault ? m_default.integer64 : 0; },
                     [this](wxString& text) {
                         text.clear();
                         if (m_hasDefault && m_default.text != nullptr)
                             text += wxString::FromUTF8(m_default.text);
                     },
                     [this](wxSecureString& secret) {
                         if (m_default.text == nullptr)
                             secret.Scrub();
                         else
                             secret.assign(m_default.text);
                     },
                     [](wxArrayString& values) { values.Clear(); },
                     [](UnknownAttributeType unknown) {
                         wxLogError(wxS("XMLAttribute::SetToDefault() - unknown type '%d'"),
                                    unknown.code);
                     }});
}

bool XMLAttribute::HoldsDefault() const {
    if (!m_hasDefault)
        return false;
    return Visit(
        Overloaded{[this](const bool& flag) { return flag == m_default.flag; },
                   [this](const int& number) { return number == m_default.integer; },
                   [this](const long long& number) { return number == m_default.integer64; },
                   [this](const wxString& text) {
                       return m_default.text != nullptr && EqualsUTF8(text, m_default.text);
                   },
                   [](const auto&) { return false; }});
}

}  // namespace VeskCore
