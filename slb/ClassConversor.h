// How a pointer to a class becomes a pointer to one of its bases. The default
// is the language's conversion; specialise it where the relation is not C++
// inheritance (a wrapper that holds a C handle, a type that is another name
// for an opaque struct):
//
//   namespace SLB {
//   template <> struct ClassConversor<CWrapper, handle_st> {
//       static handle_st* convertToBase(CWrapper* p) { return p->handle(); }
//   };
//   }
#pragma once

namespace SLB {

template <class Derived, class Base>
struct ClassConversor {
    static Base* convertToBase(Derived* object) { return static_cast<Base*>(object); }
};

namespace Private {

template <class Derived, class Base>
void* convertToBase(void* object) {
    return ClassConversor<Derived, Base>::convertToBase(static_cast<Derived*>(object));
}

}  // namespace Private
}  // namespace SLB
