// The registry: a tree of names (the Lua table SLB) and the classes by type.
//
// One default manager serves the process; others may be made (tests do). A Lua
// state is bound to one manager by registerSLB.
//
// Ownership: the manager owns everything set in it and every class it made.
// Every Lua state bound by registerSLB holds the manager until the state
// closes, so the default manager outlives destroyDefaultManager() for as long
// as such states remain. A manager made by its user must outlive the states
// bound to it.
//
// Thread safety: filled during registration on one thread. Afterwards the
// registry is read by many Lua states on many threads without a lock, and must
// not change. defaultManager() and destroyDefaultManager() are serialised.
#pragma once

#include <atomic>
#include <iosfwd>
#include <string_view>
#include <unordered_map>

#include "slb/Allocator.h"
#include "slb/Export.h"
#include "slb/TypeInfoWrapper.h"

struct lua_State;

namespace SLB {

class ClassInfo;
class Object;
class Table;

class SLB_EXPORT Manager : public Allocated {
  public:
    Manager();
    ~Manager();
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    // The process-wide manager, made at the first call.
    static Manager* defaultManager();
    // Gives up the process's default manager with all its registrations; the
    // next defaultManager() makes a new, empty one. The old one is destroyed
    // when the last Lua state bound to it has closed.
    static void destroyDefaultManager();
    // The manager bound to L, or null if registerSLB has not run on it.
    static Manager* getInstance(lua_State* L);

    // Binds this manager to L and sets the global table SLB, the name tree.
    void registerSLB(lua_State* L);

    // Places obj in the name tree ("::" makes nested tables); takes ownership.
    void set(std::string_view name, Object* obj);
    // The object under name, or null.
    Object* get(std::string_view name) const;
    const Table& getRoot() const { return *root_; }

    // The class of a type, or null; never creates one.
    ClassInfo* getClass(const TypeInfoWrapper& type) const;
    // The class of a type, created empty (no name, no kind) if missing.
    ClassInfo* getOrCreateClass(const TypeInfoWrapper& type);

    // A bound state's hold on the manager; the default manager is destroyed
    // when the last hold goes.
    void retain();
    void release();

    // Writes a Markdown reference of every name in the tree, sorted by name:
    // tables, classes with bases and instance kind, constructors, functions and
    // methods with their parameter types and comments, documentation texts and
    // constants. The same registry always gives the same text.
    void writeReference(std::ostream& out) const;

  private:
    struct TypeHash {
        std::size_t operator()(const TypeInfoWrapper& type) const { return type.hash(); }
    };
    using ClassMap =
        std::unordered_map<TypeInfoWrapper, ClassInfo*, TypeHash, std::equal_to<TypeInfoWrapper>,
                           Allocator<std::pair<const TypeInfoWrapper, ClassInfo*>>>;

    Table* root_;
    ClassMap classes_;
    std::atomic<int> holds_{0};
    bool selfDeleting_ = false;
};

}  // namespace SLB
