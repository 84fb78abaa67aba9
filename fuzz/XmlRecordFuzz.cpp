// Arbitrary bytes as an XML document for a small record tree: a lax root with
// a value of every kind that writes back unchanged, the host's interface list
// (strict, nested lists) and a limited list whose container is optional.
//
// Besides crashes and sanitizer reports, it checks that reading what was
// written gives the same document again: a record that doesn't survive its own
// XML loses data between the agent and the manager.
#include <wx/buffer.h>
#include <wx/log.h>
#include <wx/mstream.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "core/xml/IdNameDescObject.h"
#include "core/xml/Interfaces.h"
#include "core/xml/XMLObjectList.h"

namespace {

using namespace VeskCore;

class Note : public CIdNameDescObject {
  public:
    wxString GetElementName() const override { return wxS("Note"); }
};

class Notes : public XMLObjectList {
  public:
    Notes() : XMLObjectList(false, true) { m_maxChildren = 3; }
    wxString GetElementName() const override { return wxS("Notes"); }
    wxString ChildElementName() const override { return wxS("Note"); }
    XMLObject* CreateListElement() const override { return new Note; }
};

class Inventory : public XMLObject {
  public:
    Inventory() : XMLObject(false, false) {
        AddAttribute("host", &host, "");
        AddAttribute("cores", &cores, 1, false);
        AddAttribute("memory", &memory, 0, false);
        AddAttribute("virtual", &isVirtual, false);
        AddAttribute("token", &token);
        AddChild(&interfaces);
        AddChild(&notes);
    }
    wxString GetElementName() const override { return wxS("Inventory"); }

    wxString host;
    int cores = 1;
    long long memory = 0;
    bool isVirtual = false;
    wxMemoryBuffer token;
    CInterfaces interfaces;
    Notes notes;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    wxLog::EnableLogging(false);  // every rejected document logs its reason
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Inventory first;
    wxMemoryInputStream input(data, size);
    if (first.FromXML(input, nullptr) != 0 || !first.ElementWasSeen())
        return 0;
    const wxString written = first.toString();
    Inventory second;
    if (second.FromXML(written, nullptr) != 0 || second.toString() != written) {
        fprintf(stderr, "written:\n%s\nread back and written:\n%s\n",
                static_cast<const char*>(written.utf8_str()),
                static_cast<const char*>(second.toString().utf8_str()));
        abort();
    }
    return 0;
}
