// Small classes the binder tests bind: a base and derived classes (one with
// two bases, so pointers must be adjusted), a class of each instance kind, an
// enumeration; registerExamples adds constants and echo functions per type.
#pragma once

#include <wx/buffer.h>
#include <wx/string.h>

#include <atomic>
#include <string>

namespace SLB {
class Manager;
}

namespace slbtest {

// Live objects of the counted classes, for ownership checks.
struct Lifetime {
    static std::atomic<int> constructed;
    static std::atomic<int> destroyed;
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
    static Square* unit();
    static const Square* unitConst();
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
    void Delete();

  private:
    int id_;
};

// A class that is never registered.
class Orphan {
  public:
    int value() const { return 1; }
};

enum class Color { Red = 1, Green = 2 };

// Registers everything above (but Orphan and Color) in manager.
void registerExamples(SLB::Manager& manager);

}  // namespace slbtest
