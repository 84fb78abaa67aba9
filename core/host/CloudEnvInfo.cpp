#include "core/host/CloudEnvInfo.h"

#include <sys/stat.h>
#include <unistd.h>
#include <wx/log.h>
#include <wx/thread.h>

#include <algorithm>
#include <cstring>

#include "core/common/SystemUtil.h"
#include "core/host/CloudDmi.h"
#include "core/host/vmwareOvfEnv.h"
#include "core/runtime/LogTrace.h"

namespace VeskCore {
namespace {

using PropertyHandler = bool (*)(const wxString& property, wxString& value, bool logErrors);

enum : int { kFromCache = 1, kNumbered = 2 };

struct CloudPropRow {
    const char* provider;
    const char* property;
    int flags;
    PropertyHandler handler;
};

const CloudPropRow s_cloudProp[] = {
    {"ec2", "instance-id", kFromCache, HandleEC2Prop},
    {"ec2", "ami-id", kFromCache, HandleEC2Prop},
    {"ec2", "placement/availability-zone", kFromCache, HandleEC2Prop},
    {"vmware", "guestinfo.ovfenv.vcenterid", kFromCache, HandleVMwareProp},
    {"vmware", "guestinfo.ovfenv.adapter.mac", kFromCache | kNumbered, HandleVMwareProp},
    {"vmware", "guestinfo.ovfenv.vcloud.computername", kFromCache, HandleVMwareProp},
    {"", "", 0, nullptr},
};

// Lock order: s_csEnvInfo before s_placesGuard, which is only held to copy.
wxMutex s_csEnvInfo;
MapStringToString s_mapEnvInfo;
wxMutex s_placesGuard;
CloudEnvPlaces s_places;

CloudEnvPlaces CurrentPlaces() {
    wxMutexLocker lock(s_placesGuard);
    return s_places;
}

CloudHint AskDmi(const CloudEnvPlaces& places) {
    const DmiFacts facts = ReadDmiFacts(places.dmiFolder);
    const CloudHint hint = ClassifyDmi(facts);
    LogTrace(TraceCmd, "DMI vendor '%.64s', product '%.64s': EC2 %s, VMware %s",
             facts.sysVendor.c_str(), facts.productName.c_str(), hint.ec2 ? "yes" : "no",
             hint.vmware ? "yes" : "no");
    return hint;
}

wxString FullKey(const CloudPropRow& row) {
    wxString key = wxString::FromUTF8(row.provider) + wxS(".") + wxString::FromUTF8(row.property);
    key.Replace(wxS("/"), wxS("."));
    return key;
}

wxString ListKey(const wxString& key, int index) {
    return key + wxString::Format(wxS(".%i"), index);
}

// The EC2 half of HandleEC2Prop, on a session that may already hold a token.
bool AskEc2(CImdsSession& session, const std::string& property, wxString& value, bool logErrors) {
    value.clear();
    ImdsReply reply;
    std::string error;
    if (!session.Get("/latest/meta-data/" + property, reply, error)) {
        LogTrace(TraceCmd, "failed to query %.128s", property.c_str());
        if (logErrors)
            wxLogError(wxS("HandleEC2Prop() - %.128s: %.128s"), wxString::FromUTF8(property),
                       wxString::FromUTF8(error));
        return false;
    }
    if (reply.status < 200 || reply.status > 299) {
        LogTrace(TraceCmd, "status %d returned when query %.128s", reply.status, property.c_str());
        return false;
    }
    value = wxString::FromUTF8(reply.body.data(), reply.body.size());
    LogTrace(TraceCmd, "%.128s: %.256s", property.c_str(), reply.body.c_str());
    return true;
}

bool IsExecutableFile(const wxString& path) {
    const std::string native = path.utf8_string();
    struct stat info {};
    return stat(native.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           access(native.c_str(), X_OK) == 0;
}

// The property stands inside double quotes on a shell command line.
bool IsPlainProperty(const wxString& property) {
    return !property.empty() && std::all_of(property.begin(), property.end(), [](wxUniChar c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '.' || c == '_' || c == '-';
    });
}

// The VMware half of HandleVMwareProp.
bool RunVmTool(const wxString& tool, const wxString& property, wxString& value, bool logErrors) {
    value.clear();
    if (!IsExecutableFile(tool) || !IsPlainProperty(property))
        return false;
    const wxString arguments = wxS("--cmd \"info-get ") + property + wxS("\"");
    wxString output;
    if (Execute(tool, arguments, output, false)) {
        value = output;
        return true;
    }
    if (logErrors)
        LogTrace(TraceCmd, "Error executing %.256s %.256s", tool.utf8_string().c_str(),
                 arguments.utf8_string().c_str());
    return false;
}

void CollectEc2(const CloudEnvPlaces& places, bool logErrors) {
    CImdsSession session(places.imds);
    for (const CloudPropRow* row = s_cloudProp; row->provider[0] != '\0'; ++row) {
        if (strcmp(row->provider, "ec2") != 0)
            continue;
        wxString value;
        if (!AskEc2(session, row->property, value, logErrors))
            return;
        s_mapEnvInfo[FullKey(*row)] = value;
    }
}

void CollectVMware(const CloudEnvPlaces& places) {
    wxString xml;
    RunVmTool(places.vmTool, wxS("guestinfo.ovfEnv"), xml, false);
    if (xml.empty()) {
        LogTrace(TraceCmd, "unable to get ovfenv");
        return;
    }
    StoreOvfEnvironment(xml, s_mapEnvInfo);
}

enum class Rule { found, missing };

// One row of a query: copies what the cache (or a live handler) has into
// `result`, and tells which rule closes the row.
Rule QueryRow(const CloudPropRow& row, const wxString& key, MapStringToString& result,
              bool& missing) {
    if ((row.flags & kFromCache) == 0) {
        if (row.handler == nullptr)
            return Rule::missing;
        wxString value;
        // Kept as it has always been: a live answer marks the provider as
        // incomplete. No row of the table is live.
        if (row.handler(wxString::FromUTF8(row.property), value, false))
            missing = true;
        if (!value.empty())
            result[key] = value;
        return Rule::found;
    }
    if ((row.flags & kNumbered) == 0) {
        const MapStringToString::const_iterator found = s_mapEnvInfo.find(key);
        if (found == s_mapEnvInfo.end())
            return Rule::missing;
        result[key] = found->second;
        return Rule::found;
    }
    for (int i = 0;; ++i) {
        const MapStringToString::const_iterator found = s_mapEnvInfo.find(ListKey(key, i));
        if (found == s_mapEnvInfo.end())
            return Rule::found;
        result[found->first] = found->second;
    }
}

}  // namespace

bool HandleEC2Prop(const wxString& property, wxString& value, bool logErrors) {
    value.clear();
    const CloudEnvPlaces places = CurrentPlaces();
    if (!AskDmi(places).ec2) {
        LogTrace(TraceCmd, "failed to query %.128s", property.utf8_string().c_str());
        return false;
    }
    CImdsSession session(places.imds);
    return AskEc2(session, property.utf8_string(), value, logErrors);
}

bool HandleVMwareProp(const wxString& property, wxString& value, bool logErrors) {
    value.clear();
    const CloudEnvPlaces places = CurrentPlaces();
    return AskDmi(places).vmware && RunVmTool(places.vmTool, property, value, logErrors);
}

void GetVmToolPath(wxString& path) {
    path = CurrentPlaces().vmTool;
}

bool CollectEnvInfo(bool logErrors) {
    wxMutexLocker lock(s_csEnvInfo);
    s_mapEnvInfo.clear();
    const CloudEnvPlaces places = CurrentPlaces();
    const CloudHint hint = AskDmi(places);
    if (hint.ec2)
        CollectEc2(places, logErrors);
    if (hint.vmware)
        CollectVMware(places);
    return true;
}

void QueryEnvInfo(const wxString& provider, bool requireAll, MapStringToString& result) {
    wxMutexLocker lock(s_csEnvInfo);
    result.clear();
    bool missing = false;
    for (const CloudPropRow* row = s_cloudProp; row->provider[0] != '\0'; ++row) {
        if (provider != wxString::FromUTF8(row->provider))
            continue;
        const Rule rule = QueryRow(*row, FullKey(*row), result, missing);
        if (rule == Rule::missing || missing) {
            if (requireAll) {
                result.clear();
                return;
            }
            missing = true;
        }
    }
}

void SetCloudEnvPlaces(const CloudEnvPlaces& places) {
    wxMutexLocker lock(s_placesGuard);
    s_places = places;
}

bool StoreOvfEnvironment(const wxString& xml, MapStringToString& cache) {
    CvmwareOvfEnv environment;
    if (environment.FromXML(xml, " ") != 0 || !environment.ElementWasSeen())
        return false;
    const wxString prefix = wxS("vmware.guestinfo.ovfenv.");
    cache[prefix + wxS("vcenterid")] = environment.vCenterId;
    int index = 0;
    for (const XMLObject* child : environment.adapters.Children())
        cache[ListKey(prefix + wxS("adapter.mac"), index++)] =
            static_cast<const CvmwareOvfEnv_Adapter*>(child)->mac;
    for (const XMLObject* child : environment.properties.Children()) {
        const auto* property = static_cast<const CvmwareOvfEnv_Property*>(child);
        if (property->key.CmpNoCase(wxS("vCloud_computerName")) == 0) {
            cache[prefix + wxS("vcloud.computername")] = property->value;
            break;
        }
    }
    return true;
}

}  // namespace VeskCore
