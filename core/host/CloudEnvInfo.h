// Whether the host runs on EC2 or in a VMware virtual machine, and a few
// properties that identify it, kept in a process-wide cache.
//
// CollectEnvInfo fills the cache; the host application chooses when, nothing
// in the library calls it. QueryEnvInfo then answers per provider from the
// cache without touching the network. Before any question the machine's own
// DMI data (CloudDmi.h) decides: only a machine that DMI shows as EC2 gets
// requests to the instance metadata service, and only one shown as VMware
// starts vmtoolsd. Any other machine opens no socket, starts no process, and
// its cache stays empty. The EC2 step takes at most 1 s a request and 2 s in
// all (Ec2Metadata.h).
//
// Cache keys are the provider, ".", and the property with "/" made ".";
// numbered lists add ".<i>" from 0:
//   ec2.instance-id  ec2.ami-id  ec2.placement.availability-zone
//   vmware.guestinfo.ovfenv.vcenterid
//   vmware.guestinfo.ovfenv.adapter.mac.0 (.1, ...)
//   vmware.guestinfo.ovfenv.vcloud.computername
//
// Trace lines go under the mask "Cmd"; with `logErrors`, a failed request to
// the metadata service is also logged as an error.
//
// Thread safety: every function may be called from any thread. One lock
// serialises CollectEnvInfo and QueryEnvInfo and is held across the requests
// and the tool's run, so a query waits for a collection in progress (the
// tool's run is not bounded).
#pragma once

#include <wx/string.h>

#include <string>

#include "core/common/Export.h"
#include "core/common/Maps.h"
#include "core/host/Ec2Metadata.h"

namespace VeskCore {

// Replaces the cache with what this machine tells: EC2's instance ID, AMI ID
// and zone, asked in that order and given up at the first failure (so off a
// working service the later rows cost nothing); VMware's OVF environment.
// A failure leaves what was collected before it. Always true.
VESK_EXPORT bool CollectEnvInfo(bool logErrors);

// Fills `result` (cleared first) with the cached properties of `provider`
// ("ec2" or "vmware", case-sensitive) under their keys. With `requireAll`,
// all of the provider's properties or none; without, what is there. An
// empty numbered list counts as present.
VESK_EXPORT void QueryEnvInfo(const wxString& provider, bool requireAll, MapStringToString& result);

// One live property: `value` is emptied, then set from the answer. True only
// for a status from 200 to 299. EC2 asks /latest/meta-data/<property>;
// VMware runs `vmtoolsd --cmd "info-get <property>"` (the property made of
// letters, digits, ".", "_" and "-" only: it reaches a shell). Each asks DMI
// first and is false without a question when DMI says otherwise; VMware is
// also false, silently, when the tool is not an executable file.
VESK_EXPORT bool HandleEC2Prop(const wxString& property, wxString& value, bool logErrors);
VESK_EXPORT bool HandleVMwareProp(const wxString& property, wxString& value, bool logErrors);

// The path of VMware's tool, "/usr/bin/vmtoolsd" unless replaced.
VESK_EXPORT void GetVmToolPath(wxString& path);

// --- Not exported: for the library's tests and benchmarks ------------------

// Where detection looks. Tests replace these with a fake DMI folder, a fake
// tool and a loopback endpoint.
struct CloudEnvPlaces {
    std::string dmiFolder = "/sys/class/dmi/id";
    wxString vmTool = wxS("/usr/bin/vmtoolsd");
    ImdsEndpoint imds;
};

void SetCloudEnvPlaces(const CloudEnvPlaces& places);

// The VMware half of a collection once the tool has printed `xml`: reads it
// as an OVF environment and stores its properties into `cache`. False, storing
// nothing, when the document is malformed (logged) or of another kind.
bool StoreOvfEnvironment(const wxString& xml, MapStringToString& cache);

}  // namespace VeskCore
