// Argument counts, object checks, unknown classes, constructors and dispatch.
#include "tests/slb/BinderTest.h"

namespace slbtest {
namespace {

using CallRulesTest = BinderTest;

// Each broken call raises its own text, positioned like any Lua error.
TEST_F(CallRulesTest, BrokenCallsRaiseTheirExactErrors) {
    const struct {
        const char* chunk;
        const char* error;
    } cases[] = {
        {"\nSLB.echo.big(1)", "test:2: Error number of arguments (given 1 -> expected 0)"},
        {"SLB.echo.int(1, nil)", "test:1: Error number of arguments (given 2 -> expected 1)"},
        {"SLB.geo.Shape()", "test:1: Error number of arguments (given 0 -> expected 1)"},
        // A method checks its object before the count.
        {"SLB.geo.Shape.area(nil, 1, 2)", "test:1: Invalid object for this method"},
        {"SLB.geo.Shape.area(SLB.Buffer())", "test:1: Invalid object for this method"},
        {"SLB.geo.Shape(1):add(1)", "test:1: Error number of arguments (given 1 -> expected 2)"},
        // Methods written as functions follow the same rules.
        {"SLB.geo.Shape.twice(nil)", "test:1: Invalid object for this method"},
        {"SLB.geo.Shape(1):twice(1)", "test:1: Error number of arguments (given 1 -> expected 0)"},
        // A const instance is no object for a non-const method.
        {"SLB.geo.Square.unitConst():grow(1)", "test:1: Invalid object for this method"},
        {"SLB.geo.Square.unitConst():shrink()", "test:1: Invalid object for this method"},
        {"SLB.orphanValue(nil)", "test:1: Unknown class slbtest::Orphan"},  // even for nil
        {"SLB.newOrphan()", "test:1: Class slbtest::Orphan is not avaliable! "},
        {"SLB.Named()", "test:1: Class slbtest::Named has no constructor"},
        // A raw function gets the stack unchecked.
        {"SLB.rawSum(2)", "test:1: bad argument #2 to 'rawSum' (number expected, got no value)"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(run(c.chunk), c.error) << c.chunk;
}

// Virtual dispatch, members of bases, dot calls, const instances, raw functions.
TEST_F(CallRulesTest, WellFormedCallsReachTheRightNativeCode) {
    EXPECT_EQ(
        run("local sq, tile = SLB.geo.Square(3), SLB.geo.Tile(5)\n"
            "assert(SLB.geo.Shape.area(sq) == 9 and sq:kind() == 'square')\n"
            "assert(tile:area() == 25 and tile:kind() == 'tile' and tile:side() == 5)\n"
            "tile:rename('floor'); assert(tile:name() == 'floor')\n"
            "tile:grow(1); assert(tile:area() == 36 and tile.add(tile, 1, 2) == 9)\n"
            "sq:shrink(); assert(sq:twice() == 4 and SLB.Buffer():size() == 0)\n"
            "assert(SLB.geo.Square.unitConst():area() == 1)\n"
            "assert(SLB.isSquare(SLB.geo.Square.unitConst()) == false)\n"
            "assert(SLB.rawSum(2, 3, 'ignored') == 5)\n"
            // Inherited members are reachable on the derived class table.
            "assert(SLB.geo.Tile.grow == SLB.geo.Shape.grow and SLB.geo.Tile.missing == nil)\n"
            "assert(SLB.geo.Tile.LIMITS.MAX == 100)"),
        "");
}

}  // namespace
}  // namespace slbtest
