// Arbitrary bytes as the OVF environment that vmtoolsd prints, read into
// cache entries as a collection does.
//
// Besides crashes and sanitizer reports, it checks the shape of what is
// stored: nothing for a document that was refused; otherwise the vCenter ID,
// adapter addresses numbered from 0 without gaps, and at most the vCloud
// computer name besides.
#include <wx/log.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "core/host/CloudEnvInfo.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    wxLog::EnableLogging(false);  // every malformed document logs its reason
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using VeskCore::MapStringToString;
    MapStringToString cache;
    const wxString xml = wxString::FromUTF8(reinterpret_cast<const char*>(data), size);
    const bool stored = VeskCore::StoreOvfEnvironment(xml, cache);
    const wxString prefix = wxS("vmware.guestinfo.ovfenv.");
    size_t adapters = 0;
    while (cache.count(prefix + wxString::Format(wxS("adapter.mac.%zu"), adapters)) != 0)
        ++adapters;
    const size_t others = cache.size() - adapters;
    const bool named = cache.count(prefix + wxS("vcloud.computername")) != 0;
    const bool shaped = stored ? cache.count(prefix + wxS("vcenterid")) == 1 &&
                                     others == 1 + (named ? 1 : 0)
                               : cache.empty();
    if (!shaped) {
        fprintf(stderr, "stored %d, %zu entries, %zu adapters\n", stored, cache.size(), adapters);
        abort();
    }
    return 0;
}
