// One entry of a record's attribute table: which member it is, of what type,
// its default, and what happened to it (parsed, null).
//
// The member is not owned; its address is also the attribute's identity. A
// default text is not copied and must outlive the record (literals, or the
// text of wxEmptyString); for a string array the same slot holds the
// separator.
#pragma once

#include <wx/buffer.h>
#include <wx/string.h>

#include "core/common/Export.h"

class wxSecureString;

namespace VeskCore {

// The type codes of attributes; the numbers reach callbacks and log lines.
enum _PrimitiveType {
    PT_BINARY = 0,         // wxMemoryBuffer
    PT_BOOL = 1,           // bool
    PT_INT = 2,            // int
    PT_INT64 = 3,          // long long
    PT_STRING = 4,         // wxString
    PT_SECURE_STRING = 5,  // wxSecureString
    PT_STRING_ARRAY = 6,   // wxArrayString
};

class VESK_EXPORT XMLAttribute {
  public:
    XMLAttribute() { Init(); }
    explicit XMLAttribute(wxMemoryBuffer* value);
    explicit XMLAttribute(bool* value);
    XMLAttribute(bool* value, bool def);
    explicit XMLAttribute(int* value);
    XMLAttribute(int* value, int def, bool primaryKey);
    explicit XMLAttribute(long long* value);
    XMLAttribute(long long* value, long long def, bool primaryKey);
    XMLAttribute(wxString* value, const char* def);  // a null default: none
    explicit XMLAttribute(wxSecureString* value);
    XMLAttribute(wxArrayString* value, const char* separator);  // null: ","

    // Restores the member to its default (or the type's empty value); the
    // attribute counts as null and not parsed.
    void SetToDefault();

    _PrimitiveType m_type;
    void* m_value;
    union {
        bool flag;
        int integer;
        long long integer64;
        const char* text;
    } m_default;
    bool m_hasDefault : 1;
    bool m_wasParsed : 1;
    bool m_isPrimaryKey : 1;
    bool m_isNull : 1;

  private:
    void Init();
};

}  // namespace VeskCore
