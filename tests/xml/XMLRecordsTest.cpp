// The common records: the attributes each writes and reads, and the interface's hardware
// address kept as bytes and as text.
#include <expat.h>
#include <gtest/gtest.h>

#include "core/xml/IdNameDescItemsObject.h"
#include "core/xml/IdNameItemsObject.h"
#include "core/xml/Interfaces.h"
#include "tests/support/CapturingLog.h"
#include "tests/xml/XMLTestSupport.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

// The base records have no element of their own: a leaf names them to write them.
template <class Base>
class Named : public Base {
  public:
    using Base::Base;
    wxString GetElementName() const override { return wxS("Rec"); }
};

TEST(IdNameRecordsTest, AttributesAndStrictness) {
    EXPECT_EQ(U(CIdNameDescItemsObject().GetElementName()), "-BaseXmlObject-");
    Named<CIdNameDescItemsObject> full;
    EXPECT_EQ(U(full.toString()), "<Rec />\n");  // id 0 and empty texts are left out
    ASSERT_EQ(Read(full, R"(<Rec name="Zürich" id="17" items="1,2" description="a b"/>)"), 0);
    EXPECT_EQ(Attrs(U(full.toString())), R"( description="a b" id="17" items="1,2" name="Zürich")");

    Named<CIdNameObject> lax(false);
    ASSERT_EQ(Read(lax, R"(<REC ID="3" Name="x"/>)"), 0);
    EXPECT_TRUE(lax.id == 3 && lax.name == wxS("x"));
    Named<CIdNameItemsObject> strict;  // every record below CIdNameObject is strict
    ASSERT_EQ(Read(strict, R"(<Rec id="2" items="i"/>)"), 0);
    EXPECT_TRUE(strict.id == 2 && strict.items == wxS("i"));
    CapturingLog quiet;
    EXPECT_EQ(Read(strict, R"(<Rec Name="x"/>)"), XML_ERROR_ABORTED);
}

// The hardware address arrives in lower case with hyphens and goes out as its bytes say.
TEST(InterfaceRecordTest, AddressBytesLeadAndTheTreeRoundTrips) {
    const char* doc = R"(<Interfaces><Interface name="eth0" dhcp="true" notAvailable="1"
        typeId="6" virtualDeviceKey="4000" bridgeName="br0" typeName="ethernet"
        mac="52-54-00-ab-cd-ef"><IPs><IP ipAddress="192.0.2.7" id="0"/><IP ipAddress="fe80::1"/>
        </IPs></Interface><Interface/></Interfaces>)";
    CInterfaces all, back;
    ASSERT_EQ(Read(all, doc), 0);
    const std::string xml = U(all.toString());
    EXPECT_EQ(Attrs(xml.substr(xml.find("<Interface "))),
              R"( bridgeName="br0" dhcp="true" mac="52:54:00:AB:CD:EF" name="eth0")"
              R"( notAvailable="true" typeId="6" typeName="ethernet" virtualDeviceKey="4000")");
    EXPECT_NE(xml.find("\t\t<IPs>\n\t\t\t<IP ipAddress=\"192.0.2.7\" />\n"), std::string::npos);
    ASSERT_EQ(Read(back, xml), 0);
    EXPECT_EQ(U(back.toString()), xml);

    CInterface byHand;  // text alone gives way to the (empty) bytes before each write
    byHand.mac = wxS("00:11:22:33:44:55");
    // The empty address list writes nothing, but the record still has a child: no " />".
    EXPECT_EQ(U(byHand.toString()), "<Interface>\n</Interface>\n");
}

}  // namespace
