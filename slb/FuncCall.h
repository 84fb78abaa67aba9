// A callable in the name tree: a Lua C function, or a typed native function,
// method, const method or constructor whose arguments and result the binder
// converts. It records its parameter types and a comment per parameter.
//
// Checks of a typed call, in order (a Lua C function gets the raw stack and none):
//   method:      class known ("Unknown class %s"), slot 1 an instance of it
//                ("Invalid object for this method"), count without the object;
//   function:    count;
//   constructor: class known ("Class %s is not avaliable! "), count.
// A count mismatch raises "Error number of arguments (given %d -> expected %d)".
// There are no default arguments and no overloads; a virtual method dispatches
// virtually. Errors and native exceptions leave through the binder's boundary.
// A typed function reports failure by throwing, never by raising a Lua error:
// a longjmp would skip the destructors of its converted arguments.
//
// Thread safety: immutable after registration (comments aside).
#pragma once

#include <initializer_list>
#include <lua.hpp>

#include "slb/Object.h"
#include "slb/TypeInfoWrapper.h"

namespace SLB {

class ClassInfo;

class SLB_EXPORT FuncCall : public Object {
  public:
    enum class Kind { Raw, Function, Method, ConstMethod, Constructor };

    ~FuncCall() override;

    // A plain Lua C function; it gets the stack as Lua passed it.
    static FuncCall* create(lua_CFunction function);
    // A free or static function.
    template <class R, class... A>
    static FuncCall* create(R (*function)(A...));
    // A method, called as obj:Name(...).
    template <class C, class R, class... A>
    static FuncCall* create(R (C::*method)(A...));
    template <class C, class R, class... A>
    static FuncCall* create(R (C::*method)(A...) const);
    // A method given as a function of the object (C const for a const
    // method), checked and called as a method: for a native operation that
    // doesn't bind as it stands (a defaulted parameter, an overload).
    template <class C, class R, class... A>
    static FuncCall* createMethod(R (*function)(C*, A...));
    // Constructs a T from the arguments, in memory from SLB::Malloc.
    template <class T, class... A>
    static FuncCall* defaultClassConstructor();
    // A constructor that calls `factory` and pushes what it returns as a
    // pointer (nil for null), owned by no instance.
    template <class T, class... A>
    static FuncCall* factoryConstructor(T* (*factory)(A...));

    Kind getKind() const { return kind_; }
    std::size_t getNumArguments() const { return arguments_.size(); }
    const TypeInfoWrapper& getArgType(std::size_t index) const {
        return *arguments_.at(index).type;
    }
    const String& getArgComment(std::size_t index) const { return arguments_.at(index).comment; }
    // Stores the comment of parameter index (from 0); false if there is no such parameter.
    bool setArgComment(std::size_t index, std::string_view text);
    // The result type; null for void and for Lua C functions.
    const TypeInfoWrapper* getReturnType() const { return result_; }
    // The class of a method or constructor; null otherwise.
    const TypeInfoWrapper* getOwnerType() const { return owner_; }

    // Runs the call on L's stack and returns the number of results. owner is
    // the class of getOwnerType() if the caller knows it, else null.
    // Binder errors and native failures are thrown as C++ exceptions: only the
    // binder's boundary calls this.
    virtual int call(lua_State* L, const ClassInfo* owner) const = 0;

  protected:
    FuncCall(Kind kind, const TypeInfoWrapper* result, const TypeInfoWrapper* owner,
             std::initializer_list<const TypeInfoWrapper*> arguments);
    void pushImplementation(lua_State* L) const override;

  private:
    struct Argument {
        const TypeInfoWrapper* type;
        String comment;
    };

    Kind kind_;
    const TypeInfoWrapper* result_;
    const TypeInfoWrapper* owner_;
    Vector<Argument> arguments_;
};

}  // namespace SLB

#include "slb/private/FuncCallImpl.h"
