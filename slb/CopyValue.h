// A constant that holds a T and pushes a copy of it, by the rule of T, when a
// script reads it. An enumeration is pushed as an instance of its class, so
// without a registered class every read raises "Unknown class %s".
#pragma once

#include <ostream>
#include <type_traits>

#include "slb/Value.h"
#include "slb/private/Type.h"

namespace SLB {

template <class T>
class CopyValue final : public Value {
  public:
    explicit CopyValue(const T& value) : value_(value) {}

    const T& get() const { return value_; }
    const TypeInfoWrapper& getValueType() const override { return TypeID<T>::get(); }

    void writeValue(std::ostream& out) const override {
        if constexpr (std::is_enum_v<T>)
            out << static_cast<std::underlying_type_t<T>>(value_);
        else if constexpr (std::is_same_v<T, wxString>)
            out << '"' << value_.utf8_string() << '"';
        else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, const char*>)
            out << '"' << value_ << '"';
        else if constexpr (std::is_same_v<T, bool>)
            out << (value_ ? "true" : "false");
        else if constexpr (std::is_arithmetic_v<T>)
            out << +value_;
        else
            out << '?';
    }

  protected:
    void pushImplementation(lua_State* L) const override { Private::TypeOf<T>::push(L, value_); }

  private:
    T value_;
};

}  // namespace SLB
