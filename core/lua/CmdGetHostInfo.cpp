#include "core/lua/CmdGetHostInfo.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>
#include <wx/txtstrm.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>

#include "core/runtime/LogTrace.h"

namespace VeskCore {
namespace {

// The canonical name of the host, or its plain name when it has no address
// record; false when even the plain name can't be had.
bool LookUpCanonicalName(wxString& name) {
    char host[1024] = "";
    if (gethostname(host, 1023) != 0) {
        LogTrace(TraceCmd, "gethostname fail: %.128s", strerror(errno));
        return false;
    }
    host[1023] = '\0';
    addrinfo hints{};
    hints.ai_flags = AI_CANONNAME;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(host, "http", &hints, &found);
    std::string canonical;
    if (result != 0) {
        LogTrace(TraceCmd, "getaddrinfo fail: %.128s", gai_strerror(result));
    } else {
        if (found->ai_canonname != nullptr)
            canonical = found->ai_canonname;
        freeaddrinfo(found);
    }
    name = wxString::FromUTF8(canonical.empty() ? std::string(host) : canonical);
    return true;
}

std::atomic<HostNameLookup> s_Lookup{&LookUpCanonicalName};

// The cache is shared by all threads; the lookup runs outside its lock, so at
// worst two threads look the name up at once.
std::mutex s_CacheGuard;
wxString fqdn_cache;
int cache_count = 0;

wxString CachedHostName() {
    {
        std::lock_guard<std::mutex> lock(s_CacheGuard);
        if (cache_count > 0 && !fqdn_cache.empty()) {
            --cache_count;
            return fqdn_cache;
        }
    }
    wxString name;
    if (!s_Lookup.load()(name))
        return name;
    std::lock_guard<std::mutex> lock(s_CacheGuard);
    fqdn_cache = name;
    cache_count = 10;
    return name;
}

}  // namespace

bool GetHostInfo(const wxString&, wxInputStream&, int&, wxString&, wxOutputStream& out,
                 wxInputStream*&) {
    LogTrace(TraceCmd, "GetHostInfo()");
    const wxString name = CachedHostName();
    if (!name.empty()) {
        wxTextOutputStream text(out);
        text.WriteString(wxS("Hostname: ") + name + wxS("\r\n"));
    }
    return true;
}

HostNameLookup SetHostNameLookup(HostNameLookup lookup) {
    return s_Lookup.exchange(lookup != nullptr ? lookup : &LookUpCanonicalName);
}

}  // namespace VeskCore
