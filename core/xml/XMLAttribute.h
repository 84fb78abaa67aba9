// One entry of a record's attribute table: which member it is, of what type,
// its default, and what happened to it (parsed, null).
//
// The member is not owned; its address is also the attribute's identity. A
// default text is not copied and must outlive the record (literals, or the
// text of wxEmptyString); for a string array the same slot holds the
// separator.
#pragma once

#include <wx/arrstr.h>
#include <wx/buffer.h>
#include <wx/string.h>

#include <type_traits>

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

// What a visitor gets for a type code none of the above: a table filled in
// by hand can hold any number.
struct UnknownAttributeType {
    int code;
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

    // Whether the attribute has a default and the member holds it. Only the
    // scalar and text types have defaults to compare with.
    bool HoldsDefault() const;

    // Calls `visitor` once, with the member as the type its code names (a
    // const reference when the attribute is const), or with an
    // UnknownAttributeType. This is the only place where a code becomes a
    // type; every branch must give the result of the unknown case's call.
    template <class Visitor>
    auto Visit(Visitor&& visitor) {
        return Dispatch(*this, visitor);
    }
    template <class Visitor>
    auto Visit(Visitor&& visitor) const {
        return Dispatch(*this, visitor);
    }

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

    template <class Self, class T>
    using Member = std::conditional_t<std::is_const_v<Self>, const T, T>;

    template <class Self, class Visitor>
    static auto Dispatch(Self& self, Visitor& visitor)
        -> decltype(visitor(UnknownAttributeType{0})) {
        switch (self.m_type) {
            case PT_BINARY:
                return visitor(*static_cast<Member<Self, wxMemoryBuffer>*>(self.m_value));
            case PT_BOOL:
                return visitor(*static_cast<Member<Self, bool>*>(self.m_value));
            case PT_INT:
                return visitor(*static_cast<Member<Self, int>*>(self.m_value));
            case PT_INT64:
                return visitor(*static_cast<Member<Self, long long>*>(self.m_value));
            case PT_STRING:
                return visitor(*static_cast<Member<Self, wxString>*>(self.m_value));
            case PT_SECURE_STRING:
                return visitor(*static_cast<Member<Self, wxSecureString>*>(self.m_value));
            case PT_STRING_ARRAY:
                return visitor(*static_cast<Member<Self, wxArrayString>*>(self.m_value));
        }
        return visitor(UnknownAttributeType{static_cast<int>(self.m_type)});
    }
};

}  // namespace VeskCore
