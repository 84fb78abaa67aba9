// The common records: what each declares, and the interface's hardware address kept as bytes
// and as text.
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

TEST(IdNameRecordsTest, DeclarationsStrictnessAndRoundTrip) {
    using Names = std::set<std::string>;
    EXPECT_EQ(Declared(CIdObject(true)), (Names{"id=2"}));
    EXPECT_EQ(Declared(CIdNameObject(true)), (Names{"id=2", "name=4"}));
    EXPECT_EQ(Declared(CIdNameDescObject()), (Names{"id=2", "name=4", "description=4"}));
    EXPECT_EQ(Declared(CIdNameItemsObject()), (Names{"id=2", "name=4", "items=4"}));
    EXPECT_EQ(Declared(CIdNameDescItemsObject()),
              (Names{"id=2", "name=4", "description=4", "items=4"}));
    EXPECT_EQ(U(CIdNameDescItemsObject().GetElementName()), "-BaseXmlObject-");

    Named<CIdNameDescItemsObject> full, back;
    EXPECT_EQ(U(full.toString()), "<Rec />\n");  // id 0 and empty texts are left out
    full.id = 17;
    full.name = W("Zürich");
    full.description = W("a \"b\" <c>");
    full.items = W("1,2");
    const std::string xml = U(full.toString());
    EXPECT_EQ(Attrs(xml),
              R"( description="a &quot;b&quot; &lt;c&gt;" id="17" items="1,2" name="Zürich")");
    EXPECT_TRUE(XmllintAccepts(xml));
    ASSERT_EQ(Read(back, xml), 0);
    EXPECT_EQ(U(back.toString()), xml);
    EXPECT_TRUE(back.id == 17 && back.description == full.description);

    Named<CIdNameObject> lax(false);
    ASSERT_EQ(Read(lax, R"(<REC ID="3" Name="x"/>)"), 0);
    EXPECT_TRUE(lax.id == 3 && lax.name == wxS("x"));
    CapturingLog quiet;
    Named<CIdNameItemsObject> strict;  // every record below CIdNameObject is strict
    EXPECT_EQ(Read(strict, R"(<Rec Name="x"/>)"), XML_ERROR_ABORTED);
}

TEST(InterfaceRecordTest, MacBytesAndTextStayInStep) {
    CInterface nic;
    const unsigned char bytes[] = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
    nic.SetMACBinary(bytes, sizeof bytes);
    // The empty address list writes nothing, but the record still has a child: no " />".
    EXPECT_EQ(U(nic.toString()), "<Interface mac=\"00:1A:2B:3C:4D:5E\">\n</Interface>\n");
    CInterface byHand;  // text alone gives way to the (empty) bytes
    byHand.mac = wxS("00:11:22:33:44:55");
    EXPECT_EQ(U(byHand.toString()), "<Interface>\n</Interface>\n");
    ASSERT_EQ(Read(nic, R"(<Interface mac="0a-1b-2c-3d-4e-5f"/>)"), 0);
    EXPECT_EQ(nic.macBinary, "\x0A\x1B\x2C\x3D\x4E\x5F");
    EXPECT_EQ(U(nic.toString()), "<Interface mac=\"0A:1B:2C:3D:4E:5F\">\n</Interface>\n");
}

TEST(InterfaceRecordTest, InterfacesWithAddressesRoundTrip) {
    const char* doc = R"(<Interfaces><Interface name="eth0" dhcp="true" notAvailable="1"
        typeId="6" virtualDeviceKey="4000" bridgeName="br0" typeName="ethernet"
        mac="52-54-00-12-34-56"><IPs><IP ipAddress="192.0.2.7" id="0"/><IP ipAddress="fe80::1"/>
        </IPs></Interface><Interface/></Interfaces>)";
    CInterfaces all, back;
    ASSERT_EQ(Read(all, doc), 0);
    const std::string xml = U(all.toString());
    EXPECT_EQ(Attrs(xml.substr(xml.find("<Interface "))),
              R"( bridgeName="br0" dhcp="true" mac="52:54:00:12:34:56" name="eth0")"
              R"( notAvailable="true" typeId="6" typeName="ethernet" virtualDeviceKey="4000")");
    EXPECT_EQ(
        xml.substr(xml.find("\t\t<IPs>")),
        "\t\t<IPs>\n\t\t\t<IP ipAddress=\"192.0.2.7\" />\n\t\t\t<IP ipAddress=\"fe80::1\" />\n"
        "\t\t</IPs>\n\t</Interface>\n\t<Interface>\n\t</Interface>\n</Interfaces>\n");
    EXPECT_TRUE(XmllintAccepts(xml));
    ASSERT_EQ(Read(back, xml), 0);
    EXPECT_EQ(U(back.toString()), xml);
    const auto* first = static_cast<const CInterface*>(back.Children().GetFirst()->GetData());
    EXPECT_EQ(first->macBinary, std::string("\x52\x54\x00\x12\x34\x56", 6));
    back.CopyFrom(all);
    EXPECT_EQ(U(back.toString()), xml);
}

}  // namespace
