// Writes the Markdown reference of a name tree (Manager::writeReference).
// One section per table or class, depth first in name order; inside a section
// one line per callable or constant, also in name order.
#pragma once

#include <iosfwd>
#include <string>

namespace SLB {

class ClassInfo;
class FuncCall;
class Object;
class Table;
class Value;

namespace Private {

class ReferenceWriter {
  public:
    explicit ReferenceWriter(std::ostream& out) : out_(out) {}
    void write(const Table& root);

  private:
    void writeSection(const std::string& path, const Table& table);
    void writeHeading(const std::string& path, const Table& table);
    void writeClassDetails(const ClassInfo& cls);
    void writeEntry(const std::string& path, const std::string& name, const Object& object);
    void writeCallable(const std::string& path, const std::string& name, const FuncCall& function);
    void writeValue(const std::string& path, const Value& value);
    void writeParameters(const FuncCall& function);

    std::ostream& out_;
};

}  // namespace Private
}  // namespace SLB
