// The typed callables behind FuncCall::create. Included by slb/FuncCall.h.
#pragma once

#include <cstddef>
#include <functional>
#include <new>
#include <tuple>
#include <utility>

#include "slb/FuncCall.h"
#include "slb/private/Boundary.h"
#include "slb/private/Type.h"

// GCC 12 reports a use after free inside wx's reference-counted buffers when
// their copy and release are inlined into a call below; the count is right.
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuse-after-free"
#define SLB_RESTORE_DIAGNOSTICS
#endif

namespace SLB::Private {

// Raises the count error unless given == expected.
SLB_EXPORT void checkArgumentCount(int given, std::size_t expected);
// Gives a constructed object to its instance, owned if the class's kind
// destroys what scripts construct.
SLB_EXPORT void adoptConstructed(const ClassInfo& cls, InstanceBase& instance, void* object);

// Reads the arguments from slot first upward, calls, pushes the result.
// Braced initialisation reads the slots strictly left to right.
template <class R, class... A, class Call, std::size_t... I>
int invokeWith(lua_State* L, int first, const Call& call, std::index_sequence<I...>) {
    [[maybe_unused]] std::tuple<typename TypeOf<A>::Stored...> stored{
        TypeOf<A>::get(L, first + static_cast<int>(I))...};
    if constexpr (std::is_void_v<R>) {
        call(TypeOf<A>::pass(std::get<I>(stored))...);
        return 0;
    } else {
        TypeOf<R>::push(L, call(TypeOf<A>::pass(std::get<I>(stored))...));
        return 1;
    }
}

template <class R>
const TypeInfoWrapper* resultType() {
    if constexpr (std::is_void_v<R>)
        return nullptr;
    else
        return &TypeID<R>::get();
}

template <class R, class... A>
class FC_Function final : public FuncCall {
  public:
    using Function = R (*)(A...);
    explicit FC_Function(Function function)
        : FuncCall(Kind::Function, resultType<R>(), nullptr, {&TypeID<A>::get()...}),
          function_(function) {}

    int call(lua_State* L, const ClassInfo*) const override {
        checkArgumentCount(lua_gettop(L), sizeof...(A));
        const auto invoke = [this](auto&&... args) -> R {
            return function_(std::forward<decltype(args)>(args)...);
        };
        return invokeWith<R, A...>(L, 1, invoke, std::index_sequence_for<A...>());
    }

  private:
    Function function_;
};

// Methods and const methods; Self is C or const C. Method is a pointer to a
// member, or a function taking Self* first.
template <class Self, class Method, class R, class... A>
class FC_AnyMethod final : public FuncCall {
  public:
    using C = std::remove_const_t<Self>;
    explicit FC_AnyMethod(Method method)
        : FuncCall(std::is_const_v<Self> ? Kind::ConstMethod : Kind::Method, resultType<R>(),
                   &TypeID<C>::get(), {&TypeID<A>::get()...}),
          method_(method) {}

    int call(lua_State* L, const ClassInfo* owner) const override {
        const ClassInfo& cls = owner ? *owner : requireClass<C>(L);
        Self* self;
        if constexpr (std::is_const_v<Self>)
            self = static_cast<Self*>(cls.get_const_ptr(L, 1));
        else
            self = static_cast<Self*>(cls.get_ptr(L, 1));
        if (!self)
            raiseError("Invalid object for this method");
        checkArgumentCount(lua_gettop(L) - 1, sizeof...(A));
        const auto invoke = [this, self](auto&&... args) -> R {
            return std::invoke(method_, self, std::forward<decltype(args)>(args)...);
        };
        return invokeWith<R, A...>(L, 2, invoke, std::index_sequence_for<A...>());
    }

  private:
    Method method_;
};

template <class T, class... A>
class FC_DefaultClassConstructor final : public FuncCall {
  public:
    FC_DefaultClassConstructor()
        : FuncCall(Kind::Constructor, &TypeID<T>::get(), &TypeID<T>::get(),
                   {&TypeID<A>::get()...}) {}

    int call(lua_State* L, const ClassInfo* owner) const override {
        static_assert(alignof(T) <= alignof(std::max_align_t),
                      "over-aligned classes are not supported");
        const ClassInfo* cls = owner ? owner : findClass(L, TypeID<T>::get());
        if (!cls)
            raiseError("Class %s is not avaliable! ", TypeID<T>::get().name());
        checkArgumentCount(lua_gettop(L), sizeof...(A));
        const auto construct = [cls, L](auto&&... args) {
            // The instance exists before the object: should anything fail,
            // the empty userdata is simply collected.
            InstanceBase* instance = cls->pushInstance(L, InstanceBase::I_Pointer);
            void* memory = Malloc(sizeof(T));
            if (!memory)
                throw std::bad_alloc();
            try {
                new (memory) T(std::forward<decltype(args)>(args)...);
            } catch (...) {
                Free(memory);
                throw;
            }
            adoptConstructed(*cls, *instance, memory);
        };
        invokeWith<void, A...>(L, 1, construct, std::index_sequence_for<A...>());
        return 1;
    }
};

// A constructor that asks a factory for the object: for a class whose objects
// only its library can make (a name for an opaque C structure). The object is
// pushed as a pointer, not owned: what the class's kind does with objects
// that scripts construct does not apply to what the factory made.
template <class T, class... A>
class FC_FactoryConstructor final : public FuncCall {
  public:
    using Factory = T* (*)(A...);
    explicit FC_FactoryConstructor(Factory factory)
        : FuncCall(Kind::Constructor, &TypeID<T>::get(), &TypeID<T>::get(), {&TypeID<A>::get()...}),
          factory_(factory) {}

    int call(lua_State* L, const ClassInfo* owner) const override {
        const ClassInfo* cls = owner ? owner : findClass(L, TypeID<T>::get());
        if (!cls)
            raiseError("Class %s is not avaliable! ", TypeID<T>::get().name());
        checkArgumentCount(lua_gettop(L), sizeof...(A));
        const auto make = [this](auto&&... args) {
            return factory_(std::forward<decltype(args)>(args)...);
        };
        return invokeWith<T*, A...>(L, 1, make, std::index_sequence_for<A...>());
    }

  private:
    Factory factory_;
};

}  // namespace SLB::Private

#ifdef SLB_RESTORE_DIAGNOSTICS
#pragma GCC diagnostic pop
#undef SLB_RESTORE_DIAGNOSTICS
#endif

namespace SLB {

template <class R, class... A>
FuncCall* FuncCall::create(R (*function)(A...)) {
    return new Private::FC_Function<R, A...>(function);
}

template <class C, class R, class... A>
FuncCall* FuncCall::create(R (C::*method)(A...)) {
    return new Private::FC_AnyMethod<C, R (C::*)(A...), R, A...>(method);
}

template <class C, class R, class... A>
FuncCall* FuncCall::create(R (C::*method)(A...) const) {
    return new Private::FC_AnyMethod<const C, R (C::*)(A...) const, R, A...>(method);
}

template <class C, class R, class... A>
FuncCall* FuncCall::createMethod(R (*function)(C*, A...)) {
    return new Private::FC_AnyMethod<C, R (*)(C*, A...), R, A...>(function);
}

template <class T, class... A>
FuncCall* FuncCall::defaultClassConstructor() {
    return new Private::FC_DefaultClassConstructor<T, A...>();
}

template <class T, class... A>
FuncCall* FuncCall::factoryConstructor(T* (*factory)(A...)) {
    return new Private::FC_FactoryConstructor<T, A...>(factory);
}

}  // namespace SLB
