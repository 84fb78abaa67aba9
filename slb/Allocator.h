// The binder's one allocation pair. Every object the binder owns (registry
// entries, strings, containers) and every native object constructed from Lua
// is allocated by SLB::Malloc and released by SLB::Free, so that a host can
// account for or replace the memory the binder uses.
#pragma once

#include <cstddef>
#include <map>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "slb/Export.h"

namespace SLB {

using MallocFn = void* (*)(std::size_t);
using FreeFn = void (*)(void*);

// Allocates size bytes; null when the allocator fails.
SLB_EXPORT void* Malloc(std::size_t size);
// Releases memory from Malloc; null is ignored.
SLB_EXPORT void Free(void* p);

// Replaces the pair behind Malloc and Free (null for either restores malloc/free).
// REQUIRES: no memory from the previous pair is still alive, unless both pairs
// are interchangeable (as a counting wrapper over malloc/free is).
SLB_EXPORT void setMemoryFunctions(MallocFn mallocFn, FreeFn freeFn);

// Standard allocator over Malloc/Free, for the binder's containers.
template <class T>
struct Allocator {
    using value_type = T;
    Allocator() noexcept = default;
    template <class U>
    Allocator(const Allocator<U>&) noexcept {}
    T* allocate(std::size_t n) {
        if (void* p = Malloc(n * sizeof(T)))
            return static_cast<T*>(p);
        throw std::bad_alloc();
    }
    void deallocate(T* p, std::size_t) noexcept { Free(p); }
    template <class U>
    bool operator==(const Allocator<U>&) const noexcept {
        return true;
    }
    template <class U>
    bool operator!=(const Allocator<U>&) const noexcept {
        return false;
    }
};

using String = std::basic_string<char, std::char_traits<char>, Allocator<char>>;
template <class T>
using Vector = std::vector<T, Allocator<T>>;
template <class K, class V, class Less = std::less<>>
using Map = std::map<K, V, Less, Allocator<std::pair<const K, V>>>;

inline String toString(std::string_view text) {
    return String(text.data(), text.size());
}

// Base of the binder's heap classes: `new` and `delete` go through Malloc/Free.
class SLB_EXPORT Allocated {
  public:
    static void* operator new(std::size_t size);
    static void operator delete(void* p) noexcept;
};

}  // namespace SLB
