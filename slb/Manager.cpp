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

// Their addresses key the bound manager, and the state's hold on it, in each
// registry.
char s_managerKey;
char s_holdKey;

// __gc of a state's hold: the state is closing, and with it every instance
// that could still reach the manager's classes.
int releaseHold(lua_State* L) {
    auto** holder = static_cast<Manager**>(lua_touserdata(L, 1));
    if (holder != nullptr && *holder != nullptr) {
        Manager* manager = *holder;
        *holder = nullptr;
        manager->release();
    }
    return 0;
}

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
        manager->selfDeleting_ = true;
        manager->holds_ = 1;  // the process's own hold, given up by destroyDefaultManager
        s_default.store(manager, std::memory_order_release);
    }
    return manager;
}

void Manager::destroyDefaultManager() {
    Manager* manager = nullptr;
    {
        std::lock_guard<std::mutex> lock(s_defaultMutex);
        manager = s_default.exchange(nullptr);
    }
    if (manager)
        manager->release();
}

void Manager::retain() {
    holds_.fetch_add(1, std::memory_order_relaxed);
}

void Manager::release() {
    if (holds_.fetch_sub(1, std::memory_order_acq_rel) == 1 && selfDeleting_)
        delete this;
}

Manager* Manager::getInstance(lua_State* L) {
    lua_rawgetp(L, LUA_REGISTRYINDEX, &s_managerKey);  // +1
    auto* manager = static_cast<Manager*>(lua_touserdata(L, -1));
    lua_pop(L, 1);
    return manager;
}

void Manager::registerSLB(lua_State* L) {
    SLB_STACK_CHECK(L, 0);
    // The state holds the manager until it closes. Made before any instance,
    // the hold is finalized after all of them.
    auto** holder = static_cast<Manager**>(lua_newuserdata(L, sizeof(Manager*)));  // +1
    *holder = nullptr;
    lua_createtable(L, 0, 1);  // +2
    lua_pushcfunction(L, &releaseHold);
    lua_setfield(L, -2, "__gc");
    lua_setmetatable(L, -2);  // +1
    *holder = this;
    retain();
    lua_rawsetp(L, LUA_REGISTRYINDEX, &s_holdKey);  // an earlier hold is released when collected
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
