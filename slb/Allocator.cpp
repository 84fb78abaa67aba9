#include "slb/Allocator.h"

#include <atomic>
#include <cstdlib>

namespace SLB {
namespace {

// Atomics because Lua states on several threads allocate while reading them;
// they are only written at start-up.
std::atomic<MallocFn> s_malloc{&std::malloc};
std::atomic<FreeFn> s_free{&std::free};

}  // namespace

void* Malloc(std::size_t size) {
    return s_malloc.load(std::memory_order_relaxed)(size);
}

void Free(void* p) {
    if (p)
        s_free.load(std::memory_order_relaxed)(p);
}

void setMemoryFunctions(MallocFn mallocFn, FreeFn freeFn) {
    s_malloc.store(mallocFn ? mallocFn : &std::malloc);
    s_free.store(freeFn ? freeFn : &std::free);
}

void* Allocated::operator new(std::size_t size) {
    if (void* p = Malloc(size))
        return p;
    throw std::bad_alloc();
}

void Allocated::operator delete(void* p) noexcept {
    Free(p);
}

}  // namespace SLB
