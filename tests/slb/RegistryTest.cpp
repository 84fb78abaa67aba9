// The name tree, the class map, binding states and the reference text.
#include <sstream>
#include <stdexcept>

#include "tests/slb/BinderTest.h"

namespace slbtest {
namespace {

using RegistryTest = BinderTest;

int one() {
    return 1;
}

TEST_F(RegistryTest, SeparatorMakesNestedTablesAndSettingANameAgainReplacesIt) {
    manager.set("a::b::c", SLB::FuncCall::create(&one));
    EXPECT_NE(dynamic_cast<SLB::Table*>(manager.get("a::b")), nullptr);
    manager.set("x", new SLB::CopyValue<int>(1));
    manager.set("x", new SLB::CopyValue<int>(2));
    manager.set("y::z", new SLB::CopyValue<int>(3));
    manager.set("y", nullptr);
    EXPECT_EQ(run("assert(SLB.a.b.c() == 1 and SLB['a::b'] == nil)\n"
                  "assert(SLB.x == 2 and SLB.y == nil)"),
              "");
}

TEST_F(RegistryTest, ClassMayHoldNestedClassesRegisteredBeforeOrAfter) {
    struct Outer {};
    struct Inner {};
    struct Late {};
    SLB::Class<Inner>("net::Inner", &manager).comment("inner");
    SLB::Class<Outer>("net", &manager).comment("outer");
    SLB::Class<Late>("net::Late", &manager);
    EXPECT_EQ(manager.get("net"), manager.getClass(SLB::TypeID<Outer>()));
    EXPECT_EQ(manager.get("net::Inner"), manager.getClass(SLB::TypeID<Inner>()));
    EXPECT_EQ(manager.get("net::Late"), manager.getClass(SLB::TypeID<Late>()));
}

TEST_F(RegistryTest, GetClassNeverCreates) {
    struct Fresh {};
    EXPECT_EQ(manager.getClass(SLB::TypeID<Fresh>()), nullptr);
    SLB::ClassInfo* created = manager.getOrCreateClass(SLB::TypeID<Fresh>());
    EXPECT_EQ(manager.getClass(SLB::TypeID<const Fresh&>()), created);
    EXPECT_EQ(manager.getOrCreateClass(SLB::TypeID<Fresh>()), created);
    EXPECT_TRUE(created->getName().empty());
}

TEST_F(RegistryTest, StatesKnowTheirManager) {
    lua_State* L = luaL_newstate();
    EXPECT_EQ(SLB::Manager::getInstance(L), nullptr);
    manager.registerSLB(L);
    EXPECT_EQ(SLB::Manager::getInstance(L), &manager);
    lua_close(L);
}

// A script may end the library (SLB.Term) while it still holds objects: the
// registry it was bound to must serve it, and its collector, until it closes.
// The next default manager is a new one, without the old names.
TEST_F(RegistryTest, DefaultManagerIsMadeOnceAndOutlivesItsDestructionWhileStatesAreBound) {
    SLB::Manager* first = SLB::Manager::defaultManager();
    EXPECT_EQ(SLB::Manager::defaultManager(), first);
    registerExamples(*first);
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    first->registerSLB(L);
    ASSERT_EQ(luaL_dostring(L, "kept = SLB.geo.Shape(3)"), LUA_OK);
    SLB::Manager::destroyDefaultManager();
    EXPECT_NE(SLB::Manager::defaultManager(), first);
    EXPECT_EQ(SLB::Manager::defaultManager()->get("geo::Shape"), nullptr);
    EXPECT_EQ(SLB::Manager::getInstance(L), first);
    EXPECT_EQ(luaL_dostring(L, "assert(kept:side() == 3 and SLB.geo.Square(2):area() == 4)"),
              LUA_OK)
        << lua_tostring(L, -1);
    lua_close(L);
    EXPECT_EQ(Lifetime::destroyed, 2);
    SLB::Manager::destroyDefaultManager();
}

TEST_F(RegistryTest, ClassCannotInheritItselfOrADescendant) {
    struct A {};
    struct B : A {};
    SLB::Class<B>("B", &manager).inherits<A>();
    try {
        SLB::Class<A>("A", &manager).inherits<A>();
        ADD_FAILURE() << "no exception";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "Circular reference between ClassInfo classes");
    }
    EXPECT_THROW(SLB::Class<A>("A", &manager).inherits<B>(), std::logic_error);
}

TEST(TypeIdTest, HashOfTheReadableNameWithSignedBytes) {
    EXPECT_EQ(SLB::TypeInfoWrapper::hashName("A"), 65u);
    EXPECT_EQ(SLB::TypeInfoWrapper::hashName("AB"), 1090545169u);
    EXPECT_EQ(SLB::TypeInfoWrapper::hashName("\xc3\xa9"), 3170918480u);
    EXPECT_EQ(SLB::TypeInfoWrapper::hashName("\xff\x41"), 2130705964u);
    EXPECT_STREQ(SLB::TypeID<int>::get().name(), "int");
    EXPECT_EQ(SLB::TypeID<int>::get().hash(), 1896085835u);
    EXPECT_STREQ(SLB::TypeID<Shape>::get().name(), "slbtest::Shape");
    EXPECT_EQ(SLB::TypeID<const Shape&>::get(), SLB::TypeID<Shape>::get());
    EXPECT_NE(SLB::TypeID<Square>::get(), SLB::TypeID<Shape>::get());
}

TEST(ReferenceTest, ListsEveryNameSortedWithTypesAndComments) {
    SLB::Manager manager;
    SLB::Class<Shape, SLB::Instance::NoCopy>("geo::Shape", &manager)
        .comment("A shape")
        .constructor<int>()
        .param("side")
        .set("grow", &Shape::grow)
        .comment("Grows it")
        .param("by")
        .set("area", &Shape::area)
        .rawSet("MAX", new SLB::CopyValue<int>(9));
    SLB::Class<Square>("geo::Square", &manager).inherits<Shape>();
    manager.set("top", SLB::FuncCall::create(&one));
    std::ostringstream reference;
    manager.writeReference(reference);
    EXPECT_EQ(reference.str(),
              "# SLB reference\n"
              "\n## `SLB` — table\n\n"
              "- function `SLB.top() -> int`\n"
              "\n## `SLB.geo` — table\n"
              "\n## `SLB.geo.Shape` — class `slbtest::Shape`\n"
              "\nA shape\n"
              "\nInstance kind: `NoCopy`.\n"
              "\n- constructor `SLB.geo.Shape(int)`\n"
              "  - 1: side\n"
              "\n"
              "- constant `SLB.geo.Shape.MAX`: `int` = 9\n"
              "- const method `SLB.geo.Shape:area() -> int`\n"
              "- method `SLB.geo.Shape:grow(int)` — Grows it\n"
              "  - 1: by\n"
              "\n## `SLB.geo.Square` — class `slbtest::Square`\n"
              "\nInstance kind: `Default`.\n"
              "\nBases: `SLB.geo.Shape`.\n");
}

}  // namespace
}  // namespace slbtest
