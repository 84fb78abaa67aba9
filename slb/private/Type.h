// How each native type crosses the Lua border. Type<T> has:
//   Stored  what is kept between reading the argument and the call;
//   get     reads stack slot index (binder errors are thrown);
//   pass    turns Stored into the argument;
//   push    pushes a result (+1).
// Only wrong objects raise errors; any other Lua value reads as the type's
// empty value (0, false, "", null). TypeOf<A> picks the rule for a parameter
// or result type A as written in a signature.
#pragma once

#include <wx/buffer.h>
#include <wx/string.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <lua.hpp>
#include <string>
#include <type_traits>

#include "slb/ClassInfo.h"
#include "slb/TypeInfoWrapper.h"
#include "slb/private/Boundary.h"

namespace SLB::Private {

// The class of a type in the manager bound to L, or null.
SLB_EXPORT const ClassInfo* findClass(lua_State* L, const TypeInfoWrapper& type);

// The class of T; raises "Unknown class %s" if there is none.
template <class T>
const ClassInfo& requireClass(lua_State* L) {
    const TypeInfoWrapper& type = TypeID<T>::get();
    const ClassInfo* cls = findClass(L, type);
    if (!cls)
        raiseError("Unknown class %s", type.name());
    return *cls;
}

template <class T>
[[noreturn]] void raiseNoReference() {
    raiseError("Can not get a reference of class %s", TypeID<T>::get().name());
}

// Classes and enumerations by value. An enumeration is an instance too: there
// is deliberately no integer conversion, so without a class it raises.
template <class T, class Enable = void>
struct Type {
    static_assert(std::is_class_v<T> || std::is_enum_v<T>, "SLB: no Lua conversion for this type");
    using Stored = std::conditional_t<std::is_enum_v<T>, T, const T*>;

    static Stored get(lua_State* L, int index) {
        const ClassInfo& cls = requireClass<T>(L);
        if constexpr (std::is_enum_v<T>) {
            const auto* value = static_cast<const T*>(cls.get_ptr(L, index));
            if (!value)
                raiseNoReference<T>();
            return *value;
        } else {
            const auto* object = static_cast<const T*>(cls.get_const_ptr(L, index));
            if (!object)
                raiseNoReference<T>();
            return object;
        }
    }
    static const T& pass(const Stored& stored) {
        if constexpr (std::is_enum_v<T>)
            return stored;
        else
            return *stored;
    }
    static void push(lua_State* L, const T& value) { requireClass<T>(L).push_copy(L, &value); }
};

// Pointers to bound classes: nil is a null pointer, and a null result is nil.
template <class T>
struct Type<T*> {
    using Bare = std::remove_const_t<T>;
    using Stored = T*;
    static_assert(std::is_class_v<Bare> || std::is_enum_v<Bare>,
                  "SLB: pointers only to bound classes");

    static T* get(lua_State* L, int index) {
        const ClassInfo& cls = requireClass<Bare>(L);
        if constexpr (std::is_const_v<T>)
            return static_cast<T*>(cls.get_const_ptr(L, index));
        else
            return static_cast<T*>(cls.get_ptr(L, index));
    }
    static T* pass(T* stored) { return stored; }
    static void push(lua_State* L, T* object) {
        const ClassInfo& cls = requireClass<Bare>(L);
        if constexpr (std::is_const_v<T>)
            cls.push_const_ptr(L, object);
        else
            cls.push_ptr(L, const_cast<Bare*>(object));
    }
};

// References to bound classes. A missing object can't become a reference.
template <class T>
struct Type<T&> {
    using Bare = std::remove_const_t<T>;
    using Stored = T*;

    static T* get(lua_State* L, int index) {
        T* object = Type<T*>::get(L, index);
        if (!object) {
            if constexpr (std::is_const_v<T>)
                raiseNoReference<Bare>();
            else
                raiseError("Invalid object for this method");
        }
        return object;
    }
    static T& pass(T* stored) { return *stored; }
    static void push(lua_State* L, T& object) { Type<T*>::push(L, &object); }
};

template <>
struct Type<bool> {
    using Stored = bool;
    static bool get(lua_State* L, int index) { return lua_toboolean(L, index) != 0; }
    static bool pass(bool stored) { return stored; }
    static void push(lua_State* L, bool value) { lua_pushboolean(L, value); }
};

// A Lua number as an integer of type T: truncated toward zero and saturated
// at T's limits, NaN giving 0. The plain cast is undefined out of range, and
// wrapping would turn a script's -1 into the largest count there is.
template <class T>
T saturatingInteger(lua_Number number) {
    static_assert(std::is_integral_v<T>);
    if (std::isnan(number))
        return 0;
    if (number <= static_cast<lua_Number>(std::numeric_limits<T>::min()))
        return std::numeric_limits<T>::min();
    // The limit of a 64-bit type rounds up to 2^63 or 2^64 as a double, so
    // reaching it already saturates.
    if (number >= static_cast<lua_Number>(std::numeric_limits<T>::max()))
        return std::numeric_limits<T>::max();
    return static_cast<T>(number);
}

// Integers travel as Lua integers; a non-number reads as 0.
template <class T>
struct Type<T, std::enable_if_t<std::is_integral_v<T> &&
                                (sizeof(T) < sizeof(long) || std::is_signed_v<T>)>> {
    using Stored = T;
    static T get(lua_State* L, int index) {
        return saturatingInteger<T>(lua_tonumberx(L, index, nullptr));
    }
    static T pass(T stored) { return stored; }
    static void push(lua_State* L, T value) { lua_pushinteger(L, static_cast<lua_Integer>(value)); }
};

// Floating point, and unsigned long (and wider) which Lua carries as numbers.
template <class T>
struct Type<T, std::enable_if_t<std::is_floating_point_v<T> ||
                                (std::is_integral_v<T> && std::is_unsigned_v<T> &&
                                 sizeof(T) >= sizeof(long) && !std::is_same_v<T, bool>)>> {
    using Stored = T;
    static T get(lua_State* L, int index) { return fromNumber(lua_tonumberx(L, index, nullptr)); }
    static T pass(T stored) { return stored; }
    static void push(lua_State* L, T value) { lua_pushnumber(L, static_cast<lua_Number>(value)); }

  private:
    static T fromNumber(lua_Number number) {
        if constexpr (std::is_floating_point_v<T>)
            return static_cast<T>(number);
        else
            return saturatingInteger<T>(number);
    }
};

// Text without conversion: nil (or any non-string, non-number) is null.
template <>
struct Type<const char*> {
    using Stored = const char*;
    static const char* get(lua_State* L, int index) { return lua_tolstring(L, index, nullptr); }
    static const char* pass(const char* stored) { return stored; }
    static void push(lua_State* L, const char* text) {
        if (text)
            lua_pushstring(L, text);
        else
            lua_pushnil(L);
    }
};

// Bytes with their length, embedded NULs kept.
template <>
struct Type<std::string> {
    using Stored = std::string;
    static std::string get(lua_State* L, int index) {
        std::size_t length = 0;
        const char* bytes = lua_tolstring(L, index, &length);
        return bytes ? std::string(bytes, length) : std::string();
    }
    static std::string& pass(std::string& stored) { return stored; }
    static void push(lua_State* L, const std::string& bytes) {
        lua_pushlstring(L, bytes.data(), bytes.size());
    }
};

// Text as UTF-8 up to the first NUL. Invalid UTF-8 reads as "", and text that
// can't be written as UTF-8 is pushed as nil.
template <>
struct Type<wxString> {
    using Stored = wxString;
    static wxString get(lua_State* L, int index) {
        const char* text = lua_tolstring(L, index, nullptr);
        return text ? wxString::FromUTF8(text, std::strlen(text)) : wxString();
    }
    static wxString& pass(wxString& stored) { return stored; }
    static void push(lua_State* L, const wxString& text) {
        if (!hasUtf8Form(text)) {
            lua_pushnil(L);
            return;
        }
        lua_pushstring(L, text.utf8_string().c_str());
    }

  private:
    // Surrogates and values past U+10FFFF have no UTF-8 form; wx would write
    // the first as invalid bytes and complain about the second.
    static bool hasUtf8Form(const wxString& text) {
        for (const wxUniChar c : text) {
            const wxUint32 value = c.GetValue();
            if ((value >= 0xD800 && value <= 0xDFFF) || value > 0x10FFFF)
                return false;
        }
        return true;
    }
};

template <>
struct Type<wxMemoryBuffer> {
    using Stored = wxMemoryBuffer;
    static wxMemoryBuffer get(lua_State* L, int index) {
        std::size_t length = 0;
        const char* bytes = lua_tolstring(L, index, &length);
        wxMemoryBuffer buffer;
        if (bytes && length)
            buffer.AppendData(bytes, length);
        return buffer;
    }
    static wxMemoryBuffer& pass(wxMemoryBuffer& stored) { return stored; }
    static void push(lua_State* L, const wxMemoryBuffer& buffer) {
        const std::size_t length = buffer.GetDataLen();
        lua_pushlstring(L, length ? static_cast<const char*>(buffer.GetData()) : "", length);
    }
};

template <class T>
constexpr bool isValueType =
    std::is_arithmetic_v<T> || std::is_enum_v<T> || std::is_same_v<T, std::string> ||
    std::is_same_v<T, wxString> || std::is_same_v<T, wxMemoryBuffer>;

// Values lose references and qualifiers; objects keep them, since a reference
// and a pointer to a class are different rules.
template <class A, class Bare = std::remove_cv_t<std::remove_reference_t<A>>>
using Rule = std::conditional_t<isValueType<Bare>, Bare,
                                std::conditional_t<std::is_reference_v<A>, A, std::remove_cv_t<A>>>;

template <class A>
using TypeOf = Type<Rule<A>>;

}  // namespace SLB::Private
