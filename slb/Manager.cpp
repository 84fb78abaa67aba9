#include "slb/Manager.h"

#include <atomic>
#include <lua.hpp>
#include <mutex>

#include "slb/ClassInfo.h"
#include "slb/Table.h"
#include "slb/private/ReferenceWriter.h"
#include "slb/private/StackCheck.h"

namespace SLB {
namespace {

// Its address keys the bound manager in each registry.
char s_managerKey;

std::mutex s_defaultMutex;
// Atomic so that readers on Lua threads need not take the mutex.
std::atomic<Manager*> s_default{nullptr};

}  // namespace

Manager::Manager() : root_(new Table) {
    root_->ref();
}

Manager::~Manager() {
    // The tree goes first: it may hold the classes, which outlive it in the map.
    root_->unref();
    for (auto& entry : classes_)
        entry.second->unref();
}

Manager* Manager::defaultManager() {
    if (Manager* manager = s_default.load(std::memory_order_acquire))
        return manager;
    std::lock_guard<std::mutex> lock(s_defaultMutex);
    Manager* manager = s_default.load(std::memory_order_relaxed);
    if (!manager) {
        manager = new Manager;
        s_default.store(manager, std::memory_order_release);
    }
    return manager;
}

void Manager::destroyDefaultManager() {
    std::lock_guard<std::mutex> lock(s_defaultMutex);
    delete s_default.exchange(nullptr);
}

Manager* Manager::getInstance(lua_State* L) {
    lua_rawgetp(L, LUA_REGISTRYINDEX, &s_managerKey);  // +1
    auto* manager = static_cast<Manager*>(lua_touserdata(L, -1));
    lua_pop(L, 1);
    return manager;
}

void Manager::registerSLB(lua_State* L) {
    SLB_STACK_CHECK(L, 0);
    lua_pushlightuserdata(L, this);
    lua_rawsetp(L, LUA_REGISTRYINDEX, &s_managerKey);
    root_->push(L);  // +1
    lua_setglobal(L, "SLB");
}

void Manager::set(std::string_view name, Object* obj) {
    root_->set(name, obj);
}

Object* Manager::get(std::string_view name) const {
    return root_->get(name);
}

ClassInfo* Manager::getClass(const TypeInfoWrapper& type) const {
    const auto it = classes_.find(type);
    return it == classes_.end() ? nullptr : it->second;
}

ClassInfo* Manager::getOrCreateClass(const TypeInfoWrapper& type) {
    if (ClassInfo* existing = getClass(type))
        return existing;
    auto* created = new ClassInfo(this, type);
    created->ref();
    classes_.emplace(type, created);
    return created;
}

void Manager::writeReference(std::ostream& out) const {
    Private::ReferenceWriter(out).write(*root_);
}

}  // namespace SLB
