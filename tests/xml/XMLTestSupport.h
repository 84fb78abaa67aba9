// Helpers for the object model tests: UTF-8 at the edges, attributes of a written element
// whatever their order, and the records the tests share.
#pragma once

#include <wx/string.h>

#include <map>
#include <regex>
#include <string>
#include <vector>

#include "core/common/SecureString.h"
#include "core/xml/IP.h"
#include "core/xml/XMLObjectList.h"
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

class Leaf : public VeskCore::XMLObject {
  public:
    explicit Leaf(int value = 0) : XMLObject(false, true), n(value) {
        AddAttribute("n", &n, 0, false);
    }
    wxString GetElementName() const override { return wxS("Leaf"); }
    int n = 0;
};

class Leaves : public VeskCore::XMLObjectList {
  public:
    explicit Leaves(unsigned long long maxChildren = 0) : XMLObjectList(true, false) {
        m_maxChildren = maxChildren;
    }
    wxString GetElementName() const override { return wxS("Leaves"); }
    wxString ChildElementName() const override { return wxS("Leaf"); }
    XMLObject* CreateListElement() const override { return new Leaf; }
    void Add(int n) { AddChild(new Leaf(n)); }
    std::vector<int> Values() const {
        std::vector<int> out;
        for (const XMLObject* child : Children())
            out.push_back(static_cast<const Leaf*>(child)->n);
        return out;
    }
};

// Every attribute type, with and without defaults, a member child and a list. `big` is the
// key in the table "Samples".
class Sample : public VeskCore::XMLObject {
  public:
    Sample() : XMLObject(false, true) {
        AddAttribute("blob", &blob);
        AddAttribute("flag", &flag, false);
        AddAttribute("plainFlag", &plainFlag);
        AddAttribute("count", &count, 7, false);
        AddAttribute("count", &shadow, 1, false);
        AddAttribute("plainCount", &plainCount);
        AddAttribute("big", &big, 0, true);
        AddAttribute("plainBig", &plainBig);
        AddAttribute("label", &label, "");
        AddAttribute("note", &note, nullptr);
        AddAttribute("colour", &colour, "blue");
        AddAttribute("secret", &secret);
        AddAttribute("tags", &tags, ";");
        AddAttribute("words", &words, nullptr);
        AddAttribute("gr\303\266\303\237e", &size, 3, false);
        AddChild(&address);
        AddChild(&leaves);
    }
    wxString GetElementName() const override { return wxS("Sample"); }
    bool IsNull(const void* member) const {
        for (const auto& entry : m_attributes)
            if (entry.second.m_value == member)
                return entry.second.m_isNull;
        return false;
    }
    // What code that fills a record does: every value but the key counts as set.
    void MarkFilled() {
        for (const auto& entry : m_attributes)
            SetAttributeNull(entry.second.m_value, entry.second.m_value == &big);
    }

    wxMemoryBuffer blob;
    bool flag = false, plainFlag = false;
    int count = 7, shadow = 99, plainCount = 0, size = 3;
    long long big = 0, plainBig = 0;
    wxString label, note, colour = wxS("blue");
    wxSecureString secret;
    wxArrayString tags, words;
    VeskCore::CIP address;
    Leaves leaves;
};

// Character data, which no record class of the library keeps, and a member child for the
// tests that add it.
class Note : public VeskCore::XMLObject {
  public:
    explicit Note(bool collectsText, const char* text = "") : XMLObject(collectsText, true) {
        m_text = W(text);
    }
    wxString GetElementName() const override { return wxS("Note"); }
    VeskCore::CIP ip;
};

}  // namespace VeskTest
