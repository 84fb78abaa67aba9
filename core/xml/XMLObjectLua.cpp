// Records as plain Lua tables, shaped as a generic XML-to-table reader would
// give them: {tag = name, [1] = text, attr = {...}, children...}.
#include <openssl/crypto.h>
#include <wx/arrstr.h>
#include <wx/log.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <lua.hpp>
#include <string>

#include "core/common/Overloaded.h"
#include "core/common/SecureString.h"
#include "core/common/Utf8.h"
#include "core/xml/XMLObject.h"
#include "core/xml/XMLText.h"

namespace VeskCore {
namespace {

// A Lua memory error is a longjmp here (the C build of Lua): it would skip
// the destructor of any C++ object alive across a Lua call that can raise.
// So text goes to Lua through Lua's own buffer, and nothing on the heap is
// held while Lua allocates.

// Pushes the UTF-8 of `text` up to its first NUL, as lua_pushstring would.
void PushText(lua_State* L, const wxString& text) {
    luaL_Buffer buffer;
    luaL_buffinit(L, &buffer);
    const wxStringCharType* characters = text.wx_str();
    for (size_t i = 0, length = text.length(); i < length && characters[i] != 0; ++i) {
        char* at = luaL_prepbuffsize(&buffer, 4);
        luaL_addsize(&buffer, EncodeUTF8Char(static_cast<wxUint32>(characters[i]), at));
    }
    luaL_pushresult(&buffer);
}

// GetElementName() gives a temporary: its text is copied out, and the string
// gone, before Lua allocates.
void PushElementName(lua_State* L, const XMLObject& record) {
    char copy[128];
    size_t length = 0;
    {
        const std::string name = record.GetElementName().utf8_string();
        length = name.size();
        if (length <= sizeof copy)
            memcpy(copy, name.data(), length);
    }
    if (length <= sizeof copy) {
        lua_pushlstring(L, copy, strnlen(copy, length));
        return;
    }
    auto* block = static_cast<char*>(lua_newuserdata(L, length));  // a name of unusual length
    {
        const std::string name = record.GetElementName().utf8_string();
        memcpy(block, name.data(), std::min(length, name.size()));
    }
    lua_pushlstring(L, block, strnlen(block, length));
    lua_remove(L, -2);
}

int PushPlainText(lua_State* L) {
    lua_pushstring(L, static_cast<const char*>(lua_touserdata(L, 1)));
    return 1;
}

// The plain text exists only while it is pushed, inside a protected call, so
// that it is wiped and freed even when Lua runs out of memory.
void PushSecret(lua_State* L, const wxSecureString& secret) {
    lua_pushcfunction(L, PushPlainText);
    char* plain = nullptr;
    size_t length = 0;
    secret.getContentsUtf8(plain, length, false);
    lua_pushlightuserdata(L, plain != nullptr ? plain : const_cast<char*>(""));
    const int status = lua_pcall(L, 1, 1, 0);
    if (plain != nullptr) {
        OPENSSL_cleanse(plain, length);
        free(plain);
    }
    if (status != LUA_OK)
        lua_error(L);
}

// Pushes the attribute's value (+1), or nothing when it is left out.
void PushValue(lua_State* L, const wxString& name, const XMLAttribute& attribute,
               const XMLObject& record) {
    if (attribute.HoldsDefault())
        return;
    attribute.Visit(Overloaded{
        [L](const wxMemoryBuffer& buffer) {
            if (buffer.GetDataLen() != 0)
                lua_pushlstring(L, static_cast<const char*>(buffer.GetData()), buffer.GetDataLen());
        },
        [L](const bool& flag) { lua_pushboolean(L, flag ? 1 : 0); },
        [L](const int& number) { lua_pushinteger(L, number); },
        // Through a Lua number: large values lose digits, as scripts expect.
        [L](const long long& number) { lua_pushnumber(L, static_cast<lua_Number>(number)); },
        [L](const wxString& text) { PushText(L, text); },
        [L](const wxSecureString& secret) {
            if (secret.length() != 0)
                PushSecret(L, secret);
        },
        [L](const wxArrayString& values) {
            if (values.size() == 1 && !values[0].empty()) {
                PushText(L, values[0]);
            } else if (values.size() > 1) {
                // Becomes its tostring text below: the entries don't reach Lua.
                lua_createtable(L, static_cast<int>(values.size()), 0);
                for (size_t i = 0; i < values.size(); ++i) {
                    PushText(L, values[i]);
                    lua_rawseti(L, -2, static_cast<int>(i));
                }
            }
        },
        [&](UnknownAttributeType) {
            wxLogWarning(wxS("Unhandled XMLObject attribute type for attribute '%s' of element "
                             "<%s>"),
                         name, record.GetElementName());
        }});
}

}  // namespace

int XMLObject::toLua(lua_State* L) const {
    luaL_checkstack(L, 8, "record tree too deep");
    lua_createtable(L, 0, 2);  // +1, the record
    PushElementName(L, *this);
    lua_setfield(L, -2, "tag");
    int index = 0;
    if (!m_text.empty()) {
        PushText(L, m_text);
        lua_rawseti(L, -2, ++index);
    }
    lua_newtable(L);  // +2, attr
    int attributes = 0;
    for (const auto& entry : m_attributes) {
        const int top = lua_gettop(L);
        PushValue(L, entry.first, entry.second, *this);
        if (lua_gettop(L) == top)
            continue;
        luaL_tolstring(L, -1, nullptr);  // every value becomes text
        lua_remove(L, -2);
        PushText(L, entry.first);
        lua_insert(L, -2);
        lua_settable(L, -3);  // attr[name] = text
        PushText(L, entry.first);
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
