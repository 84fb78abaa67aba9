// Argument counts, object checks, unknown classes, constructors and dispatch.
#include "tests/slb/BinderTest.h"

namespace slbtest {
namespace {

using CallRulesTest = BinderTest;

TEST_F(CallRulesTest, FunctionCountMustMatchExactly) {
    EXPECT_EQ(run("SLB.echo.int()"), "test:1: Error number of arguments (given 0 -> expected 1)");
    EXPECT_EQ(run("\nSLB.echo.big(1)"),
              "test:2: Error number of arguments (given 1 -> expected 0)");
    EXPECT_EQ(run("SLB.echo.int(1, nil)"),
              "test:1: Error number of arguments (given 2 -> expected 1)");
}

TEST_F(CallRulesTest, MethodChecksObjectBeforeCount) {
    EXPECT_EQ(run("SLB.geo.Shape.area(nil)"), "test:1: Invalid object for this method");
    EXPECT_EQ(run("SLB.geo.Shape.area(nil, 1, 2)"), "test:1: Invalid object for this method");
    EXPECT_EQ(run("SLB.geo.Shape.area(SLB.Buffer())"), "test:1: Invalid object for this method");
    EXPECT_EQ(run("SLB.geo.Shape(1):area(1)"),
              "test:1: Error number of arguments (given 1 -> expected 0)");
    EXPECT_EQ(run("SLB.geo.Shape(1):add(1)"),
              "test:1: Error number of arguments (given 1 -> expected 2)");
}

TEST_F(CallRulesTest, DotCallTakesFirstArgumentAsObject) {
    EXPECT_EQ(run("local s = SLB.geo.Shape(4)\n"
                  "assert(SLB.geo.Shape.side(s) == 4 and s.add(s, 1, 2) == 7)"),
              "");
}

TEST_F(CallRulesTest, MethodsDispatchVirtuallyAndThroughBases) {
    EXPECT_EQ(run("local sq, tile = SLB.geo.Square(3), SLB.geo.Tile(5)\n"
                  "assert(SLB.geo.Shape.area(sq) == 9 and sq:kind() == 'square')\n"
                  "assert(tile:area() == 25 and tile:kind() == 'tile' and tile:side() == 5)\n"
                  "tile:rename('floor'); assert(tile:name() == 'floor')\n"
                  "tile:grow(1); assert(tile:area() == 36)"),
              "");
}

TEST_F(CallRulesTest, InheritedMembersAreReachableOnTheDerivedClassTable) {
    EXPECT_EQ(run("assert(SLB.geo.Tile.grow == SLB.geo.Shape.grow)\n"
                  "assert(SLB.geo.Tile.LIMITS.MAX == 100)\n"
                  "assert(SLB.geo.Tile.missing == nil)"),
              "");
}

TEST_F(CallRulesTest, ConstPointerResultRefusesNonConstMethods) {
    EXPECT_EQ(run("local c = SLB.geo.Square.unitConst(); assert(c:area() == 1)"), "");
    EXPECT_EQ(run("SLB.geo.Square.unitConst():grow(1)"), "test:1: Invalid object for this method");
    // A non-const pointer parameter does not take a const instance either.
    EXPECT_EQ(run("assert(SLB.isSquare(SLB.geo.Square.unitConst()) == false)"), "");
}

TEST_F(CallRulesTest, MethodsWrittenAsFunctionsFollowTheMethodRules) {
    EXPECT_EQ(run("local s = SLB.geo.Square(3); s:shrink(); assert(s:twice() == 4)"), "");
    EXPECT_EQ(run("SLB.geo.Shape.twice(nil)"), "test:1: Invalid object for this method");
    EXPECT_EQ(run("SLB.geo.Shape(1):twice(1)"),
              "test:1: Error number of arguments (given 1 -> expected 0)");
    EXPECT_EQ(run("SLB.geo.Square.unitConst():shrink()"), "test:1: Invalid object for this method");
}

TEST_F(CallRulesTest, UnknownClassIsReportedEvenForNil) {
    EXPECT_EQ(run("SLB.orphanValue(nil)"), "test:1: Unknown class slbtest::Orphan");
}

TEST_F(CallRulesTest, ConstructorOfUnregisteredClassIsNotAvailable) {
    EXPECT_EQ(run("SLB.newOrphan()"), "test:1: Class slbtest::Orphan is not avaliable! ");
}

TEST_F(CallRulesTest, ConstructorChecksCount) {
    EXPECT_EQ(run("SLB.geo.Shape()"), "test:1: Error number of arguments (given 0 -> expected 1)");
    EXPECT_EQ(run("assert(SLB.Buffer():size() == 0)"), "");
}

TEST_F(CallRulesTest, ClassWithoutConstructorIsNotCallable) {
    EXPECT_EQ(run("SLB.Named()"), "test:1: Class slbtest::Named has no constructor");
}

TEST_F(CallRulesTest, RawFunctionGetsTheStackUnchecked) {
    EXPECT_EQ(run("assert(SLB.rawSum(2, 3, 'ignored') == 5)"), "");
    EXPECT_EQ(run("SLB.rawSum(2)"),
              "test:1: bad argument #2 to 'rawSum' (number expected, got no value)");
}

}  // namespace
}  // namespace slbtest
