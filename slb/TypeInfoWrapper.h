// Identity of a native type as the binder sees it: a printable name and a hash
// of that name. Identity is by name, not by std::type_info, so that a type seen
// from two shared objects (each with hidden visibility) is still one type.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>
#include <typeinfo>

#include "slb/Allocator.h"
#include "slb/Export.h"

namespace SLB {

class SLB_EXPORT TypeInfoWrapper {
  public:
    TypeInfoWrapper() = default;
    explicit TypeInfoWrapper(std::string_view name);

    // The hash of a printable name: starting at 0, for each byte c (as signed
    // char) hash = ((hash * 16777619) & 0x7fffffff) ^ c.
    static std::uint32_t hashName(std::string_view name);

    std::uint32_t hash() const { return hash_; }
    const char* name() const { return name_.c_str(); }

    bool operator==(const TypeInfoWrapper& other) const {
        return hash_ == other.hash_ && name_ == other.name_;
    }
    bool operator!=(const TypeInfoWrapper& other) const { return !(*this == other); }

  private:
    std::uint32_t hash_ = 0;
    String name_;
};

namespace Private {

// The readable form of a compiler type name; the mangled text if it can't be read.
SLB_EXPORT String demangle(const char* mangled);

// Built from typeid(T*) so that incomplete types (opaque C structs) have an identity.
template <class T>
String printableName() {
    if constexpr (std::is_same_v<T, std::string>)
        return String("std::string");
    String name = demangle(typeid(T*).name());
    if (!name.empty() && name.back() == '*')
        name.pop_back();
    return name;
}

}  // namespace Private

// TypeID<T>::get() is the identity of T with references and cv-qualifiers removed.
// Computed at first use and kept in a function-local static, which is safe when
// several threads reach it at once. A TypeID<T>() value converts to the wrapper.
template <class T>
struct TypeID {
    using Bare = std::remove_cv_t<std::remove_reference_t<T>>;
    static const TypeInfoWrapper& get() {
        if constexpr (std::is_same_v<Bare, T>) {
            static const TypeInfoWrapper id(Private::printableName<T>());
            return id;
        } else {
            return TypeID<Bare>::get();
        }
    }
    operator const TypeInfoWrapper&() const { return get(); }
};

}  // namespace SLB
