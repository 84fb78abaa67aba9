#include "slb/TypeInfoWrapper.h"

#include <cxxabi.h>

#include <cstdlib>

namespace SLB {

TypeInfoWrapper::TypeInfoWrapper(std::string_view name)
    : hash_(hashName(name)), name_(toString(name)) {}

std::uint32_t TypeInfoWrapper::hashName(std::string_view name) {
    std::uint32_t hash = 0;
    for (char c : name) {
        // The byte is taken as signed: a byte >= 0x80 sets the high bits.
        const auto byte =
            static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<signed char>(c)));
        hash = ((hash * 16777619u) & 0x7fffffffu) ^ byte;
    }
    return hash;
}

namespace Private {

String demangle(const char* mangled) {
    int status = 0;
    // The demangler allocates with malloc; its text is copied into our own memory.
    char* readable = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    String name(status == 0 && readable ? readable : mangled);
    std::free(readable);
    return name;
}

}  // namespace Private
}  // namespace SLB
