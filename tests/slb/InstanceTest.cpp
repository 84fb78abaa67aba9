// Instance kinds, ownership, collection and the pointer API of ClassInfo.
#include <lua.hpp>
#include <unordered_set>

#include "slb/InstanceBase.h"
#include "tests/slb/BinderTest.h"

namespace slbtest {

// An opaque C handle (never defined) and a wrapper that holds one, related
// by a conversion instead of by C++ inheritance.
struct opaque_st;

class Wrapper {
  public:
    opaque_st* handle() { return reinterpret_cast<opaque_st*>(&state_); }
    int state_ = 5;
};

}  // namespace slbtest

template <>
struct SLB::ClassConversor<slbtest::Wrapper, slbtest::opaque_st> {
    static slbtest::opaque_st* convertToBase(slbtest::Wrapper* wrapper) {
        return wrapper->handle();
    }
};

namespace slbtest {
namespace {

using InstanceTest = BinderTest;

int handleState(opaque_st* handle) {
    return handle ? *reinterpret_cast<int*>(handle) : -1;
}

TEST_F(InstanceTest, WrapperPassesWhereItsOpaqueHandleIsAsked) {
    SLB::Class<opaque_st, SLB::Instance::NoCopyNoDestroy>("Opaque", &manager);
    SLB::Class<Wrapper>("Wrapper", &manager).inherits<opaque_st>().constructor<>();
    manager.set("handleState", SLB::FuncCall::create(&handleState));
    EXPECT_EQ(run("assert(SLB.handleState(SLB.Wrapper()) == 5 and SLB.handleState(nil) == -1)\n"
                  "assert(SLB.handleState(SLB.geo.Shape(1)) == -1)"),
              "");
}

// A name for a C structure that only its library allocates: the constructor
// asks the factory, and the object is the script's to give back.
opaque_st* makeOpaque(int state) {
    return state < 0 ? nullptr : reinterpret_cast<opaque_st*>(new int(state));
}
int freeOpaque(opaque_st* handle) {
    const int state = handleState(handle);
    delete reinterpret_cast<int*>(handle);
    return state;
}

TEST_F(InstanceTest, FactoryConstructorMakesWhatOnlyTheLibraryCanMake) {
    SLB::Class<opaque_st, SLB::Instance::NoCopyNoDestroy>("Opaque", &manager)
        .constructor(&makeOpaque)
        .set("Free",
             SLB::FuncCall::createMethod(+[](opaque_st* self) { return freeOpaque(self); }));
    EXPECT_EQ(run("local o = SLB.Opaque(9)\n"
                  "collectgarbage() collectgarbage()\n"  // not the collector's to free
                  "assert(o:Free() == 9)\n"
                  "assert(SLB.Opaque(-1) == nil)\n"
                  "local ok, e = pcall(SLB.Opaque)\n"
                  "assert(not ok and e:find('given 0 %-> expected 1'), e)"),
              "");
}

TEST_F(InstanceTest, ScriptsCannotMisuseTheCollectorOfNativeObjects) {
    EXPECT_EQ(run("local s = SLB.geo.Shape(1)\n"
                  "assert(getmetatable(s) == false)\n"
                  "local gc = debug.getmetatable(s).__gc\n"
                  "gc({}); gc(io.stdout); gc(s); gc(s)"),
              "");
    EXPECT_EQ(Lifetime::destroyed, 1);  // once by the explicit call, never again
    lua.collect();
    EXPECT_EQ(Lifetime::destroyed, 1);
    EXPECT_EQ(Lifetime::constructed, 1);
}

TEST_F(InstanceTest, DefaultKindCopiesValues) {
    EXPECT_EQ(run("local s = SLB.geo.Square(2)\n"
                  "local c = SLB.copyShape(s)\n"
                  "c:grow(5)\n"
                  "assert(c:side() == 7 and s:side() == 2)\n"
                  "assert(c:kind() == 'shape')"),
              "");
    lua.collect();
    EXPECT_EQ(Lifetime::constructed, Lifetime::destroyed);
}

TEST_F(InstanceTest, NoCopyKindLeavesCopiesUnusable) {
    EXPECT_EQ(run("local copy = SLB.Buffer.copyOf(SLB.Buffer())\n"
                  "assert(type(copy) == 'userdata')\n"
                  "copy:size()"),
              "test:3: Invalid object for this method");
    lua.collect();
    EXPECT_EQ(Lifetime::constructed, Lifetime::destroyed);
}

TEST_F(InstanceTest, NoCopyNoDestroyOutlivesCollectionUntilDeleted) {
    EXPECT_EQ(run("kept = SLB.Handle(9); local dropped = SLB.Handle(3); dropped:Delete()"), "");
    lua.collect();
    EXPECT_EQ(Lifetime::destroyed, 1);
    EXPECT_EQ(run("assert(kept:id() == 9); kept:Delete(); kept = nil"), "");
    lua.collect();
    EXPECT_EQ(Lifetime::destroyed, 2);
}

TEST_F(InstanceTest, ObjectsPushedByPointerStayNative) {
    Square::unit();
    Lifetime::reset();
    EXPECT_EQ(run("local u = SLB.geo.Square.unit(); u:grow(0)"), "");
    lua.collect();
    EXPECT_EQ(Lifetime::destroyed, 0);
}

TEST_F(InstanceTest, PointerApiConvertsAndRespectsConstness) {
    lua_State* L = lua.L;
    const SLB::ClassInfo* shape = manager.getClass(SLB::TypeID<Shape>());
    Tile tile(2);
    manager.getClass(SLB::TypeID<Tile>())->push_ptr(L, &tile);
    manager.getClass(SLB::TypeID<Tile>())->push_const_ptr(L, &tile);
    shape->push_ptr(L, nullptr);
    EXPECT_TRUE(lua_isnil(L, -1));
    EXPECT_EQ(shape->get_ptr(L, -3), static_cast<Shape*>(&tile));
    // Only meaningful if the conversion has to move the pointer.
    ASSERT_NE(static_cast<void*>(static_cast<Shape*>(&tile)), static_cast<void*>(&tile));
    EXPECT_EQ(shape->get_ptr(L, -2), nullptr);
    EXPECT_EQ(shape->get_const_ptr(L, -2), static_cast<const Shape*>(&tile));
    lua_settop(L, 0);
}

TEST_F(InstanceTest, ForeignValuesAreNoInstances) {
    lua_State* L = lua.L;
    lua_newuserdata(L, 64);
    luaL_newmetatable(L, "foreign");
    lua_setmetatable(L, -2);
    lua_newtable(L);
    lua_pushlightuserdata(L, L);
    for (int index = 1; index <= 3; ++index)
        EXPECT_EQ(manager.getClass(SLB::TypeID<Shape>())->get_const_ptr(L, index), nullptr)
            << index;
    lua_settop(L, 0);
}

// Live blocks of SLB::Malloc.
std::unordered_set<void*>* s_live = nullptr;

void* countingMalloc(std::size_t size) {
    void* p = std::malloc(size);
    if (s_live && p)
        s_live->insert(p);
    return p;
}

void countingFree(void* p) {
    if (s_live)
        s_live->erase(p);
    std::free(p);
}

TEST_F(InstanceTest, BoundObjectsUseTheBindersAllocator) {
    std::unordered_set<void*> live;
    s_live = &live;
    SLB::setMemoryFunctions(&countingMalloc, &countingFree);
    ASSERT_EQ(run("shape = SLB.geo.Shape(1); copy = SLB.copyShape(shape)"), "");
    const SLB::ClassInfo* shape = manager.getClass(SLB::TypeID<Shape>());
    lua_getglobal(lua.L, "shape");
    lua_getglobal(lua.L, "copy");
    void* constructed = shape->get_ptr(lua.L, -2);
    void* copied = shape->get_ptr(lua.L, -1);
    lua_pop(lua.L, 2);
    EXPECT_EQ(live.count(constructed), 1u);
    EXPECT_EQ(live.count(copied), 1u);
    EXPECT_EQ(run("shape, copy = nil, nil"), "");
    lua.collect();
    EXPECT_EQ(live.count(constructed) + live.count(copied), 0u);
    SLB::setMemoryFunctions(nullptr, nullptr);
    s_live = nullptr;
}

}  // namespace
}  // namespace slbtest
