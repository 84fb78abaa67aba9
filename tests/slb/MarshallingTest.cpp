// Each native type's rule at the border, seen from Lua.
#include "tests/slb/BinderTest.h"

namespace slbtest {
namespace {

using MarshallingTest = BinderTest;

TEST_F(MarshallingTest, NumbersBooleansAndConstants) {
    EXPECT_EQ(run("local e = SLB.echo\n"
                  "assert(e.int(7) == 7 and e.int('12') == 12 and e.int(-3.7) == -3)\n"
                  "assert(e.int('x') == 0 and e.int(nil) == 0 and e.int({}) == 0)\n"
                  "assert(e.char(65) == 65 and e.char('A') == 0)\n"
                  "assert(e.uint(4000000000) == 4000000000 and e.uint('7') == 7)\n"
                  "assert(e.long(-2^40) == -2^40 and e.long(true) == 0)\n"
                  "assert(e.big() == 2^40)\n"
                  "assert(e.ulong(2^53) == 2^53 and e.ulong(3.9) == 3 and e.ulong('x') == 0)\n"
                  // Out of range saturates, never wraps: -1 must not become a huge count.
                  "assert(e.uint(-1) == 0 and e.uint(2^32) == 2^32 - 1 and e.uint(0/0) == 0)\n"
                  "assert(e.ulong(-1) == 0 and e.ulong(math.huge) == 2^64)\n"
                  "assert(e.int(2^31) == 2^31 - 1 and e.int(-math.huge) == -2^31)\n"
                  "assert(e.char(300) == 127 and e.long(1e300) == 2^63)\n"
                  "assert(e.bool(nil) == false and e.bool(false) == false)\n"
                  "assert(e.bool(0) == true and e.bool('') == true)\n"
                  "assert(SLB.answer == 42 and SLB.greeting == 'h\\195\\169')"),  // constants
              "");
}

TEST_F(MarshallingTest, ByteStringsKeepTheirBytes) {
    EXPECT_EQ(run("local e = SLB.echo\n"
                  "assert(e.cstr(12) == '12' and e.cstr('a\\0b') == 'a')\n"
                  "assert(e.cstr(nil) == nil and e.cstr({}) == nil)\n"
                  "assert(e.bytes('a\\0b\\255') == 'a\\0b\\255' and e.bytes(nil) == '' and "
                  "e.bytes(3) == '3')\n"
                  "assert(e.buffer('a\\0b') == 'a\\0b' and e.buffer(nil) == '')"),
              "");
}

TEST_F(MarshallingTest, WxStringIsUtf8UpToTheFirstNul) {
    EXPECT_EQ(run("local e = SLB.echo\n"
                  "assert(e.textLength('\\195\\169t\\195\\169') == 3)\n"
                  "assert(e.text('\\195\\169t\\195\\169') == '\\195\\169t\\195\\169')\n"
                  "assert(e.text('ab\\0cd') == 'ab' and e.text(nil) == '')\n"
                  "assert(e.text('ok\\255') == '' and e.textLength('\\192\\128') == 0)\n"
                  "assert(e.surrogate() == nil)"),
              "");
}

TEST_F(MarshallingTest, PointersAcceptNilAndDerivedObjects) {
    EXPECT_EQ(
        run("assert(SLB.areaOf(nil) == -1 and SLB.areaOf(SLB.Buffer()) == -1)\n"
            "assert(SLB.areaOf(SLB.geo.Square(3)) == 9 and SLB.areaOf(SLB.geo.Tile(4)) == 16)\n"
            "assert(SLB.isSquare(SLB.geo.Shape(2)) == false)\n"
            "assert(SLB.nullShape() == nil)"),
        "");
}

TEST_F(MarshallingTest, ReferencesNeedAnObject) {
    EXPECT_EQ(run("local s = SLB.geo.Shape(2); SLB.growRef(s); assert(SLB.sideOf(s) == 3)"), "");
    EXPECT_EQ(run("SLB.sideOf(nil)"), "test:1: Can not get a reference of class slbtest::Shape");
    EXPECT_EQ(run("SLB.sideOf(SLB.Buffer())"),
              "test:1: Can not get a reference of class slbtest::Shape");
    EXPECT_EQ(run("SLB.growRef(nil)"), "test:1: Invalid object for this method");
}

TEST_F(MarshallingTest, EnumerationWithoutClassRaisesInsteadOfConverting) {
    EXPECT_EQ(run("local x = SLB.Red"), "test:1: Unknown class slbtest::Color");
    EXPECT_EQ(run("SLB.favourite()"), "test:1: Unknown class slbtest::Color");
    EXPECT_EQ(run("SLB.colorValue(1)"), "test:1: Unknown class slbtest::Color");
    // Pointers of a class nobody registered, even a nil one.
    EXPECT_EQ(run("SLB.orphanArgument(nil)"), "test:1: Unknown class slbtest::Orphan");
    EXPECT_EQ(run("SLB.orphanResult()"), "test:1: Unknown class slbtest::Orphan");
}

TEST_F(MarshallingTest, EnumerationWithClassTravelsAsInstance) {
    SLB::Class<Color>("Color", &manager);
    EXPECT_EQ(run("local c = SLB.favourite()\n"
                  "assert(type(c) == 'userdata' and SLB.colorValue(c) == 2 and "
                  "SLB.colorValue(SLB.Red) == 1)"),
              "");
    EXPECT_EQ(run("SLB.colorValue(2)"), "test:1: Can not get a reference of class slbtest::Color");
}

}  // namespace
}  // namespace slbtest
