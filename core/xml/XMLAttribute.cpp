#include "core/xml/XMLAttribute.h"

#include <wx/arrstr.h>
#include <wx/log.h>

#include <cstring>

#include "core/common/SecureString.h"

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
    switch (m_type) {
        case PT_BINARY:
            static_cast<wxMemoryBuffer*>(m_value)->SetDataLen(0);
            break;
        case PT_BOOL:
            *static_cast<bool*>(m_value) = m_hasDefault && m_default.flag;
            break;
        case PT_INT:
            *static_cast<int*>(m_value) = m_hasDefault ? m_default.integer : 0;
            break;
        case PT_INT64:
            *static_cast<long long*>(m_value) = m_hasDefault ? m_default.integer64 : 0;
            break;
        case PT_STRING: {
            auto* text = static_cast<wxString*>(m_value);
            text->clear();
            if (m_hasDefault && m_default.text != nullptr)
                *text += wxString::FromUTF8(m_default.text);
            break;
        }
        case PT_SECURE_STRING: {
            auto* secret = static_cast<wxSecureString*>(m_value);
            if (m_default.text == nullptr)
                secret->Scrub();
            else
                secret->assign(m_default.text);
            break;
        }
        case PT_STRING_ARRAY:
            static_cast<wxArrayString*>(m_value)->Clear();
            break;
        default:
            wxLogError(wxS("XMLAttribute::SetToDefault() - unknown type '%d'"),
                       static_cast<int>(m_type));
    }
}

}  // namespace VeskCore
