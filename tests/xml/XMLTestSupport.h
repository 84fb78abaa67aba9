// Helpers for the object model tests: UTF-8 at the edges, attributes of a written element
// whatever their order, and xmllint's verdict on a document.
#pragma once

#include <wx/string.h>

#include <map>
#include <regex>
#include <set>
#include <string>

#include "core/xml/XMLObject.h"
#include "tests/common/CommonTestSupport.h"

namespace VeskTest {

inline std::string U(const wxString& text) {
    return text.utf8_string();
}
inline wxString W(const std::string& text) {
    return wxString::FromUTF8(text);
}

inline int Read(VeskCore::XMLObject& record, const std::string& xml) {
    return record.FromXML(W(xml), nullptr);
}

// The attributes of the first start tag in `xml`, sorted by name (the table's own order is
// the hash map's): ` a="1" b=""`.
inline std::string Attrs(const std::string& xml) {
    static const std::regex attribute(" ([^ =]+)=\"[^\"]*\"");
    const std::string tag = xml.substr(0, xml.find('>'));
    std::map<std::string, std::string> sorted;
    for (std::sregex_iterator it(tag.begin(), tag.end(), attribute), end; it != end; ++it)
        sorted[(*it)[1]] = it->str();
    std::string out;
    for (const auto& entry : sorted)
        out += entry.second;
    return out;
}

// What a record declares: "name=type code" for each attribute.
inline std::set<std::string> Declared(const VeskCore::XMLObject& record) {
    std::set<std::string> out;
    record.EnumAttributes(
        [](const VeskCore::XMLObject*, const char* name, VeskCore::_PrimitiveType type, const void*,
           void* names) {
            static_cast<std::set<std::string>*>(names)->insert(name + ("=" + std::to_string(type)));
            return true;
        },
        &out);
    return out;
}

inline bool XmllintAccepts(const std::string& xml) {
    ScratchDir dir;
    WriteFile(dir / "doc.xml", xml);
    return ScratchDir::Shell("xmllint --noout '" + (dir / "doc.xml") + "' 2>/dev/null") == 0;
}

}  // namespace VeskTest
