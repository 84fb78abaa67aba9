#include "slb/private/ReferenceWriter.h"

#include <ostream>

#include "slb/ClassInfo.h"
#include "slb/FuncCall.h"
#include "slb/InstanceFactory.h"
#include "slb/Table.h"
#include "slb/Value.h"

namespace SLB::Private {
namespace {

std::string luaPath(const String& registeredName) {
    std::string path = "SLB";
    std::string_view rest = registeredName;
    while (!rest.empty()) {
        const auto [head, tail] = splitName(rest);
        path.append(".").append(head);
        rest = tail;
    }
    return path;
}

// A class is known by its Lua name, else by its native type.
std::string className(const ClassInfo& cls) {
    return cls.getName().empty() ? std::string(cls.getTypeID().name()) : luaPath(cls.getName());
}

void writeDocumentation(std::ostream& out, const Object& object) {
    if (!object.getInfo().empty())
        out << " — " << object.getInfo();
}

}  // namespace

void ReferenceWriter::write(const Table& root) {
    out_ << "# SLB reference\n";
    writeSection("SLB", root);
}

void ReferenceWriter::writeSection(const std::string& path, const Table& table) {
    writeHeading(path, table);
    const char* separator = "\n";  // a blank line before the first entry
    for (const auto& [name, object] : table.getElements()) {
        if (!dynamic_cast<const Table*>(object)) {
            out_ << separator;
            separator = "";
            writeEntry(path, std::string(name), *object);
        }
    }
    for (const auto& [name, object] : table.getElements()) {
        if (const auto* child = dynamic_cast<const Table*>(object))
            writeSection(path + "." + std::string(name), *child);
    }
}

void ReferenceWriter::writeHeading(const std::string& path, const Table& table) {
    const auto* cls = dynamic_cast<const ClassInfo*>(&table);
    out_ << "\n## `" << path << "` — " << (cls ? "class" : "table");
    if (cls)
        out_ << " `" << cls->getTypeID().name() << "`";
    out_ << "\n";
    if (!table.getInfo().empty())
        out_ << "\n" << table.getInfo() << "\n";
    if (cls)
        writeClassDetails(*cls);
}

void ReferenceWriter::writeClassDetails(const ClassInfo& cls) {
    if (cls.getInstanceFactory())
        out_ << "\nInstance kind: `" << cls.getInstanceFactory()->kindName() << "`.\n";
    if (!cls.getBases().empty()) {
        out_ << "\nBases:";
        const char* separator = " ";
        for (const ClassInfo::Base& base : cls.getBases()) {
            out_ << separator << "`" << className(*base.info) << "`";
            separator = ", ";
        }
        out_ << ".\n";
    }
    if (cls.getConstructor()) {
        out_ << "\n";
        writeCallable(className(cls), "", *cls.getConstructor());
    }
}

void ReferenceWriter::writeEntry(const std::string& path, const std::string& name,
                                 const Object& object) {
    if (const auto* function = dynamic_cast<const FuncCall*>(&object)) {
        writeCallable(path, name, *function);
    } else if (const auto* value = dynamic_cast<const Value*>(&object)) {
        writeValue(path + "." + name, *value);
    } else {
        out_ << "- object `" << path << "." << name << "`";
        writeDocumentation(out_, object);
        out_ << "\n";
    }
}

void ReferenceWriter::writeCallable(const std::string& path, const std::string& name,
                                    const FuncCall& function) {
    switch (function.getKind()) {
        case FuncCall::Kind::Raw:
            out_ << "- Lua C function `" << path << "." << name << "(...)`";
            break;
        case FuncCall::Kind::Function:
            out_ << "- function `" << path << "." << name << "(";
            break;
        case FuncCall::Kind::Method:
            out_ << "- method `" << path << ":" << name << "(";
            break;
        case FuncCall::Kind::ConstMethod:
            out_ << "- const method `" << path << ":" << name << "(";
            break;
        case FuncCall::Kind::Constructor:
            out_ << "- constructor `" << path << "(";
            break;
    }
    if (function.getKind() != FuncCall::Kind::Raw) {
        for (std::size_t i = 0; i < function.getNumArguments(); ++i)
            out_ << (i ? ", " : "") << function.getArgType(i).name();
        out_ << ")";
        if (function.getReturnType() && function.getKind() != FuncCall::Kind::Constructor)
            out_ << " -> " << function.getReturnType()->name();
        out_ << "`";
    }
    writeDocumentation(out_, function);
    out_ << "\n";
    writeParameters(function);
}

void ReferenceWriter::writeParameters(const FuncCall& function) {
    for (std::size_t i = 0; i < function.getNumArguments(); ++i) {
        if (!function.getArgComment(i).empty())
            out_ << "  - " << i + 1 << ": " << function.getArgComment(i) << "\n";
    }
}

void ReferenceWriter::writeValue(const std::string& path, const Value& value) {
    out_ << "- constant `" << path << "`: `" << value.getValueType().name() << "` = ";
    value.writeValue(out_);
    writeDocumentation(out_, value);
    out_ << "\n";
}

}  // namespace SLB::Private
