// Small classes the binder tests bind: a base and derived classes (one with
// two bases, so pointers must be adjusted), a class of each instance kind, an
// enumeration; registerExamples adds constants and echo functions per type.
#pragma once

#include <wx/buffer.h>
#include <wx/string.h>

#include <atomic>
#include <stdexcept>
#include <string>

#include "slb/SLB.h"

namespace slbtest {

// Live objects of the counted classes, for ownership checks.
struct Lifetime {
    static inline std::atomic<int> constructed{0};
    static inline std::atomic<int> destroyed{0};
    static void reset() { constructed = destroyed = 0; }
};

class Shape {
  public:
    explicit Shape(int side) : side_(side) { ++Lifetime::constructed; }
    Shape(const Shape& other) : side_(other.side_) { ++Lifetime::constructed; }
    virtual ~Shape() { ++Lifetime::destroyed; }
    virtual int area() const { return 0; }
    virtual std::string kind() const { return "shape"; }
    int side() const { return side_; }
    void grow(int by) { side_ += by; }
    int add(int a, int b) { return a + b + side_; }

  protected:
    int side_;
};

class Square : public Shape {
  public:
    explicit Square(int side) : Shape(side) {}
    int area() const override { return side_ * side_; }
    std::string kind() const override { return "square"; }
    // Objects owned by native code, pushed by pointer.
    static Square* unit() {
        static Square* const kUnit = new Square(1);
        return kUnit;
    }
    static const Square* unitConst() { return unit(); }
};

class Named {
  public:
    virtual ~Named() = default;
    const std::string& name() const { return name_; }
    void rename(const std::string& name) { name_ = name; }

  private:
    std::string name_ = "tile";
};

// Named comes first, so the Shape part sits at an offset inside a Tile.
class Tile : public Named, public Square {
  public:
    explicit Tile(int side) : Square(side) {}
    std::string kind() const override { return "tile"; }
};

// Instance kind NoCopy: values returned by copy are unusable in Lua.
class Buffer {
  public:
    Buffer() { ++Lifetime::constructed; }
    Buffer(const Buffer& other) : bytes_(other.bytes_) { ++Lifetime::constructed; }
    ~Buffer() { ++Lifetime::destroyed; }
    void append(const std::string& bytes) { bytes_ += bytes; }
    int size() const { return static_cast<int>(bytes_.size()); }
    static Buffer copyOf(const Buffer& other) { return other; }

  private:
    std::string bytes_;
};

// Instance kind NoCopyNoDestroy: the script frees it with Delete.
class Handle {
  public:
    explicit Handle(int id) : id_(id) { ++Lifetime::constructed; }
    ~Handle() { ++Lifetime::destroyed; }
    int id() const { return id_; }
    void Delete() {  // made by the binder's constructor: its memory came from SLB::Malloc
        this->~Handle();
        SLB::Free(this);
    }

  private:
    int id_;
};

// A class that is never registered.
class Orphan {
  public:
    int value() const { return 1; }
};

enum class Color { Red = 1, Green = 2 };

namespace detail {

template <class T>
SLB::FuncCall* echo() {
    return SLB::FuncCall::create(+[](T value) -> T { return value; });
}

inline int fail(int kind) {
    if (kind == 1)
        throw std::runtime_error("boom");
    if (kind == 2)
        throw 7;
    return kind;
}

inline int rawSum(lua_State* L) {
    lua_pushinteger(L, luaL_checkinteger(L, 1) + luaL_checkinteger(L, 2));
    return 1;
}

inline void registerClasses(SLB::Manager* m) {
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

inline void registerFunctions(SLB::Manager* m) {
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

}  // namespace detail

// Registers everything above (but Orphan and Color) in manager.
inline void registerExamples(SLB::Manager& manager) {
    detail::registerClasses(&manager);
    detail::registerFunctions(&manager);
}

}  // namespace slbtest
