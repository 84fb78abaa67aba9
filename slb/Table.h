// A node of the name tree: named objects, some of them tables again.
//
// Names given to set() and get() may hold the separator "::"; each part but the
// last names a nested table, made on demand by set(). In a Lua state a table is
// a Lua table (one per state, made at first use) whose __index reads this node
// and keeps what it read, so repeated reads cost a plain table lookup.
//
// Thread safety: set() only during registration; the rest is read-only.
#pragma once

#include "slb/Object.h"

namespace SLB {

class SLB_EXPORT Table : public Object {
  public:
    using Elements = Map<String, Object*>;

    Table() = default;
    ~Table() override;

    // Places obj under name and takes a reference to it. An object already
    // there is released; a non-table in the way of a nested name is replaced by
    // a new table. A null obj removes the entry.
    void set(std::string_view name, Object* obj);
    // The object under name ("::" allowed), or null.
    Object* get(std::string_view name) const;
    // The entry of this table itself; no splitting.
    Object* getLocal(std::string_view key) const;
    const Elements& getElements() const { return elements_; }

    // What a Lua read of key finds; a class also looks in its bases.
    virtual const Object* find(std::string_view key) const { return getLocal(key); }

    // Moves every entry of other into this table, replacing same-named ones.
    void adoptElements(Table& other);

  protected:
    void pushImplementation(lua_State* L) const override;
    // Adds the metamethods of this node's Lua table to the metatable on top of L.
    virtual void fillMetatable(lua_State* L) const;

  private:
    void setLocal(std::string_view key, Object* obj);
    Table* childTable(std::string_view key);

    Elements elements_;
};

namespace Private {

// Splits "a::b::c" at its first separator: {"a", "b::c"}; {"a", ""} if none.
std::pair<std::string_view, std::string_view> splitName(std::string_view name);

}  // namespace Private
}  // namespace SLB
