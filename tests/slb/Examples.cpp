#include "tests/slb/Examples.h"

#include <stdexcept>

#include "slb/SLB.h"

namespace slbtest {

std::atomic<int> Lifetime::constructed{0};
std::atomic<int> Lifetime::destroyed{0};

Square* Square::unit() {
    static Square* unit = new Square(1);
    return unit;
}

const Square* Square::unitConst() {
    return unit();
}

void Handle::Delete() {
    // Made by the binder's constructor, so its memory came from SLB::Malloc.
    this->~Handle();
    SLB::Free(this);
}

namespace {

template <class T>
SLB::FuncCall* echo() {
    return SLB::FuncCall::create(+[](T value) -> T { return value; });
}

int fail(int kind) {
    if (kind == 1)
        throw std::runtime_error("boom");
    if (kind == 2)
        throw 7;
    return kind;
}

int rawSum(lua_State* L) {
    lua_pushinteger(L, luaL_checkinteger(L, 1) + luaL_checkinteger(L, 2));
    return 1;
}

void registerClasses(SLB::Manager* m) {
    using namespace SLB;
    Class<Shape, Instance::Default>("geo::Shape", m)
        .comment("A shape with a side")
        .constructor<int>()
        .set("area", &Shape::area)
        .set("kind", &Shape::kind)
        .set("side", &Shape::side)
        .set("grow", &Shape::grow)
        .set("twice", FuncCall::createMethod(+[](const Shape* shape) { return 2 * shape->side(); }))
        .set("shrink", FuncCall::createMethod(+[](Shape* shape) { shape->grow(-1); }))
        .set("add", &Shape::add)
        .rawSet("LIMITS::MAX", new CopyValue<int>(100));
    Class<Square>("geo::Square", m)
        .inherits<Shape>()
        .constructor<int>()
        .set("unit", &Square::unit)
        .set("unitConst", &Square::unitConst);
    Class<Named>("Named", m).set("name", &Named::name).set("rename", &Named::rename);
    Class<Tile>("geo::Tile", m)
        .inherits<Named>()
        .inherits<Square>()
        .inherits<Shape>()
        .constructor<int>();
    Class<Buffer, Instance::NoCopy>("Buffer", m)
        .constructor<>()
        .set("append", &Buffer::append)
        .set("size", &Buffer::size)
        .set("copyOf", &Buffer::copyOf);
    Class<Handle, Instance::NoCopyNoDestroy>("Handle", m)
        .constructor<int>()
        .set("id", &Handle::id)
        .set("Delete", &Handle::Delete);
}

void registerFunctions(SLB::Manager* m) {
    using SLB::FuncCall;
    m->set("echo::int", echo<int>());
    m->set("echo::char", echo<char>());
    m->set("echo::uint", echo<unsigned int>());
    m->set("echo::long", echo<long>());
    m->set("echo::bool", echo<bool>());
    m->set("echo::ulong", echo<unsigned long>());
    m->set("echo::cstr", echo<const char*>());
    m->set("echo::bytes", echo<const std::string&>());
    m->set("echo::text", echo<const wxString&>());
    m->set("echo::buffer", echo<wxMemoryBuffer>());
    m->set("echo::big", FuncCall::create(+[]() { return 1LL << 40; }));
    m->set("echo::surrogate", FuncCall::create(+[]() { return wxString(wxUniChar(0xD800)); }));
    m->set("echo::textLength",
           FuncCall::create(+[](wxString text) { return static_cast<int>(text.length()); }));
    m->set("areaOf",
           FuncCall::create(+[](const Shape* shape) { return shape ? shape->area() : -1; }));
    m->set("sideOf", FuncCall::create(+[](const Shape& shape) { return shape.side(); }));
    m->set("growRef", FuncCall::create(+[](Shape& shape) { shape.grow(1); }));
    m->set("isSquare", FuncCall::create(+[](Square* square) { return square != nullptr; }));
    m->set("nullShape", FuncCall::create(+[]() -> Shape* { return nullptr; }));
    m->set("copyShape", FuncCall::create(+[](const Shape& shape) { return shape; }));
    m->set("favourite", FuncCall::create(+[]() { return Color::Green; }));
    m->set("colorValue", FuncCall::create(+[](Color color) { return static_cast<int>(color); }));
    m->set("Red", new SLB::CopyValue<Color>(Color::Red));
    m->set("answer", new SLB::CopyValue<int>(42));
    m->set("greeting", new SLB::CopyValue<wxString>(wxString::FromUTF8("h\xc3\xa9")));
    m->set("fail", FuncCall::create(&fail));
    m->set("rawSum", FuncCall::create(&rawSum));
    m->set("orphanValue", FuncCall::create(&Orphan::value));
    m->set("orphanArgument", FuncCall::create(+[](Orphan* orphan) { return orphan != nullptr; }));
    m->set("orphanResult", FuncCall::create(+[]() -> Orphan* { return nullptr; }));
    m->set("newOrphan", FuncCall::defaultClassConstructor<Orphan>());
}

}  // namespace

void registerExamples(SLB::Manager& manager) {
    registerClasses(&manager);
    registerFunctions(&manager);
}

}  // namespace slbtest
