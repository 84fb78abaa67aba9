#include "slb/Table.h"

#include <lua.hpp>

#include "slb/private/Boundary.h"
#include "slb/private/StackCheck.h"

namespace SLB {
namespace Private {

std::pair<std::string_view, std::string_view> splitName(std::string_view name) {
    const std::size_t at = name.find("::");
    if (at == std::string_view::npos)
        return {name, std::string_view()};
    return {name.substr(0, at), name.substr(at + 2)};
}

}  // namespace Private

namespace {

// __index(proxy, key) of a table node; upvalue 1 is the node.
int indexTable(lua_State* L) {
    return Private::protect(L, [](lua_State* L) {
        const auto* table = static_cast<const Table*>(lua_touserdata(L, lua_upvalueindex(1)));
        if (lua_type(L, 2) != LUA_TSTRING)
            return 0;
        std::size_t length = 0;
        const char* key = lua_tolstring(L, 2, &length);
        const Object* found = table->find(std::string_view(key, length));
        if (!found)
            return 0;
        found->push(L);  // +1
        if (found->isCacheable()) {
            lua_pushvalue(L, 2);
            lua_pushvalue(L, -2);
            lua_rawset(L, 1);  // proxy[key] = value, so the next read skips this function
        }
        return 1;
    });
}

}  // namespace

Table::~Table() {
    for (auto& entry : elements_)
        entry.second->unref();
}

void Table::set(std::string_view name, Object* obj) {
    const auto [head, rest] = Private::splitName(name);
    if (rest.empty())
        setLocal(head, obj);
    else
        childTable(head)->set(rest, obj);
}

Object* Table::get(std::string_view name) const {
    const auto [head, rest] = Private::splitName(name);
    Object* found = getLocal(head);
    if (rest.empty() || !found)
        return found;
    const auto* child = dynamic_cast<const Table*>(found);
    return child ? child->get(rest) : nullptr;
}

Object* Table::getLocal(std::string_view key) const {
    const auto it = elements_.find(key);
    return it == elements_.end() ? nullptr : it->second;
}

void Table::adoptElements(Table& other) {
    for (auto& entry : other.elements_) {
        setLocal(entry.first, entry.second);
        entry.second->unref();  // the reference other held moves to us
    }
    other.elements_.clear();
}

void Table::setLocal(std::string_view key, Object* obj) {
    // Take the new reference first: obj may be the object it replaces.
    if (obj)
        obj->ref();
    const auto it = elements_.find(key);
    if (it != elements_.end()) {
        Object* old = it->second;
        if (obj)
            it->second = obj;
        else
            elements_.erase(it);
        old->unref();
    } else if (obj) {
        elements_.emplace(toString(key), obj);
    }
}

Table* Table::childTable(std::string_view key) {
    if (auto* existing = dynamic_cast<Table*>(getLocal(key)))
        return existing;
    auto* child = new Table;
    setLocal(key, child);
    return child;
}

void Table::pushImplementation(lua_State* L) const {
    SLB_STACK_CHECK(L, 1);
    // One Lua table per node and state, kept in the registry under the node's address.
    lua_rawgetp(L, LUA_REGISTRYINDEX, this);  // +1
    if (!lua_isnil(L, -1))
        return;
    lua_pop(L, 1);
    lua_createtable(L, 0, 0);  // the proxy
    lua_createtable(L, 0, 2);  // its metatable
    fillMetatable(L);
    lua_setmetatable(L, -2);
    lua_pushvalue(L, -1);
    lua_rawsetp(L, LUA_REGISTRYINDEX, this);
}

void Table::fillMetatable(lua_State* L) const {
    lua_pushlightuserdata(L, const_cast<Table*>(this));
    lua_pushcclosure(L, &indexTable, 1);
    lua_setfield(L, -2, "__index");
}

}  // namespace SLB
