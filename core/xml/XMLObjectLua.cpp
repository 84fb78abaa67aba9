// Records as plain Lua tables, shaped as a generic XML-to-table reader would
// give them: {tag = name, [1] = text, attr = {...}, children...}.
#include <openssl/crypto.h>
#include <wx/arrstr.h>
#include <wx/log.h>

#include <cstdlib>
#include <lua.hpp>

#include "core/common/SecureString.h"
#include "core/xml/XMLObject.h"

namespace VeskCore {
namespace {

void PushText(lua_State* L, const wxString& text) {
    const std::string bytes = text.utf8_string();
    lua_pushlstring(L, bytes.data(), bytes.size());
}

void PushSecret(lua_State* L, const wxSecureString& secret) {
    char* plain = nullptr;
    size_t length = 0;
    secret.getContentsUtf8(plain, length, false);
    lua_pushstring(L, plain != nullptr ? plain : "");
    if (plain != nullptr) {
        OPENSSL_cleanse(plain, length);
        free(plain);
    }
}

bool EqualsDefault(const XMLAttribute& attribute) {
    if (!attribute.m_hasDefault)
        return false;
    switch (attribute.m_type) {
        case PT_BOOL:
            return *static_cast<const bool*>(attribute.m_value) == attribute.m_default.flag;
        case PT_INT:
            return *static_cast<const int*>(attribute.m_value) == attribute.m_default.integer;
        case PT_INT64:
            return *static_cast<const long long*>(attribute.m_value) ==
                   attribute.m_default.integer64;
        case PT_STRING:
            return attribute.m_default.text != nullptr &&
                   *static_cast<const wxString*>(attribute.m_value) ==
                       wxString::FromUTF8(attribute.m_default.text);
        default:
            return false;
    }
}

// Pushes the attribute's value (+1), or nothing when it is left out.
void PushValue(lua_State* L, const wxString& name, const XMLAttribute& attribute,
               const wxString& element) {
    if (EqualsDefault(attribute))
        return;
    switch (attribute.m_type) {
        case PT_BINARY: {
            const auto* buffer = static_cast<const wxMemoryBuffer*>(attribute.m_value);
            if (buffer->GetDataLen() != 0)
                lua_pushlstring(L, static_cast<const char*>(buffer->GetData()),
                                buffer->GetDataLen());
            break;
        }
        case PT_BOOL:
            lua_pushboolean(L, *static_cast<const bool*>(attribute.m_value) ? 1 : 0);
            break;
        case PT_INT:
            lua_pushinteger(L, *static_cast<const int*>(attribute.m_value));
            break;
        case PT_INT64:
            // Through a Lua number: large values lose digits, as scripts expect.
            lua_pushnumber(
                L, static_cast<lua_Number>(*static_cast<const long long*>(attribute.m_value)));
            break;
        case PT_STRING:
            PushText(L, *static_cast<const wxString*>(attribute.m_value));
            break;
        case PT_SECURE_STRING: {
            const auto* secret = static_cast<const wxSecureString*>(attribute.m_value);
            if (secret->length() != 0)
                PushSecret(L, *secret);
            break;
        }
        case PT_STRING_ARRAY: {
            const auto* values = static_cast<const wxArrayString*>(attribute.m_value);
            if (values->size() == 1 && !(*values)[0].empty()) {
                PushText(L, (*values)[0]);
            } else if (values->size() > 1) {
                // Becomes its tostring text below: the entries don't reach Lua.
                lua_createtable(L, static_cast<int>(values->size()), 0);
                for (size_t i = 0; i < values->size(); ++i) {
                    PushText(L, (*values)[i]);
                    lua_rawseti(L, -2, static_cast<int>(i));
                }
            }
            break;
        }
        default:
            wxLogWarning(wxS("Unhandled XMLObject attribute type for attribute '%s' of element "
                             "<%s>"),
                         name, element);
    }
}

}  // namespace

int XMLObject::toLua(lua_State* L) const {
    const wxString element = GetElementName();
    lua_createtable(L, 0, 2);  // +1, the record
    PushText(L, element);
    lua_setfield(L, -2, "tag");
    int index = 0;
    if (!m_text.empty()) {
        PushText(L, m_text);
        lua_rawseti(L, -2, ++index);
    }
    lua_newtable(L);  // +2, attr
    int attributes = 0;
    for (const auto& entry : *m_attributes) {
        const int top = lua_gettop(L);
        PushValue(L, entry.first, entry.second, element);
        if (lua_gettop(L) == top)
            continue;
        luaL_tolstring(L, -1, nullptr);  // every value becomes text
        lua_remove(L, -2);
        const std::string name = entry.first.utf8_string();
        lua_setfield(L, -2, name.c_str());
        lua_pushlstring(L, name.data(), name.size());
        lua_rawseti(L, -2, ++attributes);
    }
    lua_setfield(L, -2, "attr");
    for (const XMLObject* child : m_children) {
        child->toLua(L);
        lua_rawseti(L, -2, ++index);
    }
    return 1;
}

}  // namespace VeskCore
