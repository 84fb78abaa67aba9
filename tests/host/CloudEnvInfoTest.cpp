// Cloud detection apart from the metadata service: what DMI decides, how the
// OVF environment becomes cache entries, VMware's tool (a fake vmtoolsd that
// insists on its arguments), the all-or-none rule of queries, and queries
// racing a collection.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "core/host/CloudDmi.h"
#include "core/host/CloudEnvInfo.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/host/CloudTestSupport.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

TEST(CloudDmiTest, VendorAssetTagOrUuidTellTheProvider) {
    struct Row {
        DmiFacts facts;
        bool ec2, vmware;
    } rows[] = {
        {{"Amazon EC2", "Amazon EC2", "m5.large", "i-0123456789abcdef0", ""}, true, false},
        {{"Xen", "Xen", "HVM domU", "", "ec2a1b2c-1234-5678-9abc-def012345678"}, true, false},
        {{"Xen", "Xen", "HVM domU", "", "EC2E1916-9099-7CAF-FD21-012345678901"}, true, false},
        {{"", "", "", "i-0123456789abcdef0", ""}, true, false},  // product_uuid unreadable
        {{"Xen", "Amazon EC2", "", "", ""}, true, false},
        {{"VMware, Inc.", "Phoenix Technologies LTD", "VMware Virtual Platform", "No Asset Tag",
          "4231d1c2-0000-0000-0000-000000000000"},
         false,
         true},
        {{"Dell Inc.", "Dell Inc.", "PowerEdge R640", "", "4c4c4544-0ec2-0000-0000-000000000000"},
         false,
         false},
        {{"Microsoft Corporation", "Microsoft Corporation", "Virtual Machine", "7783-7084-3265",
          ""},
         false,
         false},
        {{"", "", "", "", ""}, false, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.facts.sysVendor + " / " + row.facts.productUuid);
        const CloudHint hint = ClassifyDmi(row.facts);
        EXPECT_EQ(hint.ec2, row.ec2);
        EXPECT_EQ(hint.vmware, row.vmware);
    }
}

TEST(CloudDmiTest, ReadsFirstLinesAndTakesMissingFilesAsEmpty) {
    ScratchDir dmi;
    WriteDmi(dmi.path(), kEc2Nitro);
    ASSERT_EQ(unlink((dmi / "product_uuid").c_str()), 0);
    const DmiFacts facts = ReadDmiFacts(dmi.path());
    EXPECT_EQ(facts.sysVendor, "Amazon EC2");
    EXPECT_EQ(facts.boardAssetTag, "i-0123456789abcdef0");
    EXPECT_EQ(facts.productUuid, "");
}

const std::string kOvfHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<Environment xmlns=\"http://schemas.dmtf.org/ovf/environment/1\" "
    "xmlns:oe=\"http://schemas.dmtf.org/ovf/environment/1\" "
    "xmlns:ve=\"http://www.vmware.com/schema/ovfenv\" oe:id=\"\" ";
const std::string kAdapters =
    "<ve:EthernetAdapterSection>"
    "<ve:Adapter ve:mac=\"00:50:56:a1:00:01\" ve:network=\"VM Network\" ve:unitNumber=\"7\"/>"
    "<ve:Adapter ve:mac=\"00:50:56:a1:00:02\" ve:network=\"Backup\" ve:unitNumber=\"8\"/>"
    "</ve:EthernetAdapterSection>";
const std::string kFullOvf = kOvfHead +
                             "ve:vCenterId=\"vm-4711\"><PlatformSection><Kind>VMware "
                             "ESXi</Kind></PlatformSection><PropertySection>"
                             "<Property oe:key=\"hostname\" oe:value=\"other\"/>"
                             "<Property oe:key=\"VCLOUD_COMPUTERNAME\" oe:value=\"web-01\"/>"
                             "<Property oe:key=\"vCloud_computerName\" oe:value=\"second\"/>"
                             "</PropertySection>" +
                             kAdapters + "</Environment>\n";
const std::string kFullKeys =
    "vmware.guestinfo.ovfenv.adapter.mac.0=00:50:56:a1:00:01;"
    "vmware.guestinfo.ovfenv.adapter.mac.1=00:50:56:a1:00:02;"
    "vmware.guestinfo.ovfenv.vcenterid=vm-4711;vmware.guestinfo.ovfenv.vcloud.computername=web-01;";

std::string Sorted(const MapStringToString& map) {
    std::map<std::string, std::string> sorted;
    for (const auto& entry : map)
        sorted[entry.first.utf8_string()] = entry.second.utf8_string();
    std::string text;
    for (const auto& entry : sorted)
        text += entry.first + "=" + entry.second + ";";
    return text;
}

TEST(OvfEnvironmentTest, PropertiesOfAnEnvironmentDocumentAndNothingOfAnyOther) {
    struct Row {
        const char* what;
        std::string xml;
        std::string keys;
        bool logged;
    } rows[] = {
        {"two adapters, vCloud name in another case", kFullOvf, kFullKeys, false},
        {"no vCenter ID, no properties", kOvfHead + ">" + kAdapters + "</Environment>",
         "vmware.guestinfo.ovfenv.adapter.mac.0=00:50:56:a1:00:01;"
         "vmware.guestinfo.ovfenv.adapter.mac.1=00:50:56:a1:00:02;"
         "vmware.guestinfo.ovfenv.vcenterid=;",
         false},
        {"another root", "<Envelope xmlns=\"http://schemas.dmtf.org/ovf/envelope/1\"/>", "", false},
        {"Environment outside its namespace", "<Environment vCenterId=\"vm-1\"/>", "", false},
        {"malformed", kOvfHead + "><PropertySection></Environment>", "", true},
        {"attribute against the strict rule", kOvfHead + "Bad=\"1\"/>", "", true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        CapturingLog log;
        MapStringToString cache;
        EXPECT_EQ(StoreOvfEnvironment(wxString::FromUTF8(row.xml), cache), !row.keys.empty());
        EXPECT_EQ(Sorted(cache), row.keys);
        EXPECT_EQ(!log.Texts(wxLOG_Error).empty(), row.logged);
    }
}

// A vmtoolsd that prints `ovf` only when called exactly as VMware's tools
// are, and leaves a mark that it ran.
void WriteFakeTool(const std::string& path, const std::string& ovf, mode_t mode) {
    WriteFile(path,
              "#!/bin/sh\ntouch \"$0.ran\"\n"
              "[ $# -eq 2 ] && [ \"$1\" = --cmd ] && [ \"$2\" = 'info-get guestinfo.ovfEnv' ] || "
              "exit 1\ncat <<'EOF'\n" +
                  ovf + "\nEOF\n");
    chmod(path.c_str(), mode);
}

std::string Query(const char* provider, bool requireAll) {
    MapStringToString found;
    QueryEnvInfo(wxString::FromUTF8(provider), requireAll, found);
    return Sorted(found);
}

TEST(VMwareCollectTest, TheToolRunsOnlyWhereDmiSaysVMwareAndQueriesAreAllOrNone) {
    const std::string noName =
        kOvfHead + "ve:vCenterId=\"vm-4711\">" + kAdapters + "</Environment>";
    const std::string noNameKeys =
        "vmware.guestinfo.ovfenv.adapter.mac.0=00:50:56:a1:00:01;"
        "vmware.guestinfo.ovfenv.adapter.mac.1=00:50:56:a1:00:02;"
        "vmware.guestinfo.ovfenv.vcenterid=vm-4711;";
    struct Row {
        const char* what;
        Dmi dmi;
        std::string ovf;
        mode_t mode;
        bool ran;
        std::string all, some;
    } rows[] = {
        {"VMware", kVMware, kFullOvf, 0755, true, kFullKeys, kFullKeys},
        {"no vCloud name", kVMware, noName, 0755, true, "", noNameKeys},
        {"tool not executable", kVMware, kFullOvf, 0644, false, "", ""},
        {"bare metal", kBareMetal, kFullOvf, 0755, false, "", ""},
        {"EC2", kEc2Nitro, kFullOvf, 0755, false, "", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ScratchDir dir;
        WriteDmi(dir.path(), row.dmi);
        WriteFakeTool(dir / "vmtoolsd", row.ovf, row.mode);
        CloudEnvPlaces places;
        places.dmiFolder = dir.path();
        places.vmTool = wxString::FromUTF8(dir / "vmtoolsd");
        places.imds = {"127.0.0.1", 9};  // EC2 row: nothing may listen there anyway
        PlacesOverride use(places);
        EXPECT_TRUE(CollectEnvInfo(false));
        EXPECT_EQ(access((dir / "vmtoolsd.ran").c_str(), F_OK) == 0, row.ran);
        EXPECT_EQ(Query("vmware", true), row.all);
        EXPECT_EQ(Query("vmware", false), row.some);
        EXPECT_EQ(Query("VMware", false), "");
        EXPECT_EQ(Query("azure", false), "");
    }
}

TEST(VMwareCollectTest, QueriesRacingCollectionsSeeAllOrNothing) {
    ScratchDir dir;
    WriteDmi(dir.path(), kVMware);
    WriteFakeTool(dir / "vmtoolsd", kFullOvf, 0755);
    CloudEnvPlaces places;
    places.dmiFolder = dir.path();
    places.vmTool = wxString::FromUTF8(dir / "vmtoolsd");
    PlacesOverride use(places);
    std::atomic<bool> done{false};
    std::thread collector([&] {
        for (int i = 0; i < 20; ++i)
            CollectEnvInfo(false);
        done = true;
    });
    for (int seen = 0; !done || seen == 0; ++seen) {
        // A query that got between the clearing and the filling would see part.
        const std::string keys = Query("vmware", false);
        EXPECT_TRUE(keys.empty() || keys == kFullKeys) << keys;
    }
    collector.join();
    EXPECT_EQ(Query("vmware", true), kFullKeys);
}

}  // namespace
