// The three instance kinds, given as the second argument of SLB::Class<T, Kind>.
//
//   Default          a push by copy copies the object (T must be copyable);
//                    objects owned by an instance are destroyed on collection.
//   NoCopy           a push by copy holds a null pointer, so any use of it fails
//                    as an invalid object; owned objects destroyed on collection.
//   NoCopyNoDestroy  as NoCopy, but objects constructed from Lua are never
//                    destroyed: the script must free them through the class.
//                    Works for incomplete types (opaque C handles).
#pragma once

#include <cstddef>
#include <new>

#include "slb/InstanceFactory.h"

namespace SLB {
namespace Private {

template <class T>
void destroyObject(void* object) {
    static_cast<T*>(object)->~T();
    Free(object);
}

}  // namespace Private

namespace Instance {

struct Default {
    template <class T>
    class Factory final : public InstanceFactory {
      public:
        void* copy(const void* object) const override {
            static_assert(alignof(T) <= alignof(std::max_align_t),
                          "over-aligned classes are not supported");
            void* memory = Malloc(sizeof(T));
            if (!memory)
                throw std::bad_alloc();
            try {
                return new (memory) T(*static_cast<const T*>(object));
            } catch (...) {
                Free(memory);
                throw;
            }
        }
        bool destroysConstructed() const override { return true; }
        void destroy(void* object) const override { Private::destroyObject<T>(object); }
        const char* kindName() const override { return "Default"; }
    };
};

struct NoCopy {
    template <class T>
    class Factory final : public InstanceFactory {
      public:
        void* copy(const void*) const override { return nullptr; }
        bool destroysConstructed() const override { return true; }
        void destroy(void* object) const override { Private::destroyObject<T>(object); }
        const char* kindName() const override { return "NoCopy"; }
    };
};

struct NoCopyNoDestroy {
    template <class T>
    class Factory final : public InstanceFactory {
      public:
        void* copy(const void*) const override { return nullptr; }
        bool destroysConstructed() const override { return false; }
        // Never asked: this kind owns nothing.
        void destroy(void*) const override {}
        const char* kindName() const override { return "NoCopyNoDestroy"; }
    };
};

}  // namespace Instance
}  // namespace SLB
