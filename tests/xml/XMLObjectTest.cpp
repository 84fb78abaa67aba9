// The attribute table, reading through Expat and writing indented XML, checked against
// hand-written documents and xmllint rather than against the code's own output.
#include <expat.h>
#include <gtest/gtest.h>
#include <wx/sstream.h>

#include <cerrno>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "tests/support/CapturingLog.h"
#include "tests/support/Tools.h"
#include "tests/xml/XMLTestSupport.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

using Strings = std::vector<std::string>;

// Placeholders are protected; these show how many a record holds.
class WatchedLeaf : public Leaf {
  public:
    size_t Placeholders() const { return m_tempObjects.GetCount(); }
};
class Holder : public XMLObject {
  public:
    Holder() : XMLObject(false, true) { AddChild(&leaf); }
    wxString GetElementName() const override { return wxS("Holder"); }
    size_t Placeholders() const { return m_tempObjects.GetCount(); }
    WatchedLeaf leaf;
};

// What Parse makes of each text: the value, or "fail".
template <typename T>
Strings ParseEach(std::initializer_list<const char*> texts) {
    Strings out;
    for (const char* text : texts) {
        T value{};
        out.push_back(XMLObject::Parse(W(text), value) ? std::to_string(value) : "fail");
    }
    return out;
}

TEST(XMLObjectModelTest, RegistrationAndNullFlags) {
    CapturingLog quiet;
    Sample s;
    // "count" was registered twice: the first member is bound, the second never touched.
    EXPECT_TRUE(s.GetAttributeName(&s.count) == wxS("count") &&
                s.GetAttributeName(&s.shadow).empty());
    EXPECT_TRUE(s.IsNull(&s.count) && s.SetAttribute(wxS("count"), wxS("12")));
    EXPECT_TRUE(s.AttributeWasParsed(&s.count) && !s.IsNull(&s.count));
    EXPECT_TRUE(s.SetAttribute(wxS("Count"), wxS("5")) && s.count == 12);  // another name
    EXPECT_FALSE(s.SetAttribute(wxS("count"), wxS("12x")));
    EXPECT_TRUE(!s.AttributeWasParsed(&s.count) && s.IsNull(&s.count) && s.shadow == 99);
    s.colour = wxS("red");  // marking a member null brings its default back
    s.SetAttributeNull(&s.colour, true);
    EXPECT_TRUE(s.IsNull(&s.colour) && s.colour == wxS("blue"));
}

TEST(XMLObjectWriteTest, LeftOutValuesLayoutAndRoundTrip) {
    Sample s;
    std::string xml = U(s.toString());
    // A string without a default is written even when empty; the empty list writes nothing.
    EXPECT_EQ(Attrs(xml), R"( note="" plainBig="0" plainCount="0" plainFlag="false")");
    EXPECT_EQ(xml.substr(0, 8) + xml.substr(xml.find('>')), "<Sample >\n\t<IP />\n</Sample>\n");

    s.blob.AppendData("\x00\x01\xFEhi", 5);
    s.flag = s.plainFlag = true;
    s.count = -5;
    s.big = -9007199254740993LL;  // beyond a double's precision
    s.label = W("a<b>&\"c'\t\n\r");
    s.note = W("Zürich €");
    s.colour = wxString();  // off its default
    s.secret.assign("s3cr3t");
    s.tags.Add(wxS("x"));
    s.tags.Add(wxS("y"));
    s.words.Add(wxString());  // one empty entry counts as none
    s.address.id = 3;
    for (int n : {1, -2, 3})
        s.leaves.Add(n);
    xml = U(s.toString());
    EXPECT_EQ(Attrs(xml), R"( big="-9007199254740993" blob="AAH+aGk=" colour="" count="-5")"
                          R"( flag="true" label="a&lt;b&gt;&amp;&quot;c&apos;&#x9;&#xA;&#xD;")"
                          R"( note="Zürich €" plainBig="0" plainCount="0")"
                          R"( plainFlag="true" secret="s3cr3t" tags="x; y")");

    s.tags.RemoveAt(1);  // a second entry would gain a leading blank on the way back
    xml = U(s.toString());
    Sample back, copy, formatted;
    ASSERT_EQ(Read(back, xml), 0);
    EXPECT_EQ(U(back.toString()), xml);
    copy.CopyFrom(s);
    EXPECT_EQ(U(copy.toString()), xml);
    // xmllint validates the document and lays it out anew, with a declaration: the same record.
    VESK_SKIP_WITHOUT_TOOLS("xmllint");
    ScratchDir dir;
    WriteFile(dir / "doc.xml", xml);
    const std::string tidy = ToolOutput("xmllint --format '" + (dir / "doc.xml") + "'");
    ASSERT_EQ(Read(formatted, tidy), 0);
    EXPECT_EQ(U(formatted.toString()), xml);

    s.secret.assign("a\"&b");  // secrets go out exactly as held
    EXPECT_NE(U(s.toString()).find(" secret=\"a\"&b\""), std::string::npos);
}

TEST(XMLObjectWriteTest, QuotingTextIndentAndArrays) {
    const wxString specials = W("\t\n\r\"&'<>");
    EXPECT_EQ(U(XMLObject::QuoteAttribute(specials)), "&#x9;&#xA;&#xD;&quot;&amp;&apos;&lt;&gt;");
    EXPECT_EQ(U(XMLObject::QuoteCharData(specials)), "\t\n\r\"&amp;'&lt;&gt;");
    for (bool charData : {false, true})
        EXPECT_EQ(U(XMLObject::QuoteString(W("a\x07z\x1F\x7F Zürich € 😀"), charData)),
                  "a\xEF\xBF\xBDz\xEF\xBF\xBD\xEF\xBF\xBD Zürich € 😀");

    // Text follows the children unindented; reading it back keeps the line breaks and tabs.
    Note note(true, "a \"q\" & <b>\tc");
    note.AddChild(&note.ip);
    wxStringOutputStream out(nullptr, wxConvUTF8);
    note.ToXML(out, 2);
    const std::string written = U(out.GetString());
    EXPECT_EQ(written, "\t\t<Note>\n\t\t\t<IP />\na \"q\" &amp; &lt;b&gt;\tc\n\t\t</Note>\n");
    ASSERT_EQ(Read(note, written), 0);
    EXPECT_EQ(U(note.GetText()), "\n\t\t\t\na \"q\" & <b>\tc\n\t\t");
    Leaves full, empty;
    full.Add(8);
    full.CopyFrom(empty);
    EXPECT_TRUE(full.Children().empty() && empty.toString().empty());

    // A leading empty entry takes no joiner; the joiner is the separator's first character.
    const char* entries[] = {"", "a", "", "b"};
    wxArrayString values(4, entries);
    EXPECT_EQ(U(XMLObject::Print(values, nullptr) + wxS("|") + XMLObject::Print(values, ";,")),
              "a, , b|a; ; b");
    // Read back, tokens keep their blanks; any separator character splits, empty tokens drop.
    EXPECT_TRUE(XMLObject::Parse(wxS(";x;;y, z ;"), values, ";,"));
    EXPECT_EQ(wxJoin(values, '|'), wxS("x|y| z "));
}

TEST(XMLObjectReadTest, DocumentsFromOtherWritersFillTheRecords) {
    const char* doc = R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<!-- exported by hand -->
<Sample xmlns:x="urn:x" x:flavour="ignored" count="42" label="a &amp; b&#9;c" tags="one;two">
  <!-- a comment among the children -->
  <IP ipAddress="10.1.2.3" notAvailable="TRUE" id="4"/>
  <x:Other><Leaf n="99"/></x:Other>
  <Leaves><Leaf n="5"/><![CDATA[<Leaf n="6"/>]]><Leaf n="7"></Leaf></Leaves>
</Sample>
)";
    Sample s;
    ASSERT_EQ(Read(s, doc), 0);
    EXPECT_TRUE(s.count == 42 && s.AttributeWasParsed(&s.label) && !s.AttributeWasParsed(&s.big));
    EXPECT_EQ(U(s.label), "a & b\tc");
    EXPECT_EQ(wxJoin(s.tags, '|'), wxS("one|two"));
    EXPECT_TRUE(s.address.ipAddress == wxS("10.1.2.3") && s.address.notAvailable &&
                s.address.id == 4);
    EXPECT_EQ(s.leaves.Values(), (std::vector<int>{5, 7}));
    Note note(true);
    ASSERT_EQ(Read(note, "<Note><![CDATA[x <y> & \"z\"]]> tail<!-- c --></Note>"), 0);
    EXPECT_EQ(U(note.GetText()), "x <y> & \"z\" tail");
    EXPECT_EQ(U(note.toString()), "<Note>\nx &lt;y&gt; &amp; \"z\" tail\n</Note>\n");
}

TEST(XMLObjectReadTest, NameRulesPlaceholdersAndListMatching) {
    CapturingLog log;
    Sample s;  // element names match case and all
    ASSERT_EQ(Read(s, R"(<sample count="3"/>)"), 0);
    EXPECT_TRUE(!s.ElementWasSeen() && s.count == 7);

    // Strict records reject any attribute that starts with a capital, known or not.
    ASSERT_EQ(Read(s, R"(<Sample foo="1" count="2"/>)"), 0);
    EXPECT_TRUE(s.count == 2 && log.Texts(wxLOG_Error).empty());
    EXPECT_EQ(Read(s, R"(<Sample Foo="1"/>)"), XML_ERROR_ABORTED);
    EXPECT_EQ(log.Texts(wxLOG_Error).at(0),
              "Attribute 'Foo' of element 'Sample' does not begin with a lowercase letter.");
    log.Clear();

    // Unknown subtrees are skipped unexamined; a list's children need the list's element.
    ASSERT_EQ(
        Read(s, R"(<Sample><Other Foo="1"><Leaf n="1"/><IP id="x"/></Other><Leaf/></Sample>)"), 0);
    EXPECT_TRUE(s.leaves.Children().empty() && s.address.id == 0 && log.Texts(wxLOG_Error).empty());
    // Placeholders live as long as the parse, wherever in the tree they hung.
    Holder holder;
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(Read(holder, R"(<Holder><Leaf n="4"><X/><Y><Z/></Y></Leaf><Q/></Holder>)"), 0);
        EXPECT_TRUE(holder.leaf.n == 4 && holder.Placeholders() == 0 &&
                    holder.leaf.Placeholders() == 0);
    }

    // A repeated plain child is applied again; a list is entered once, after which its
    // children may also stand directly in the parent.
    ASSERT_EQ(
        Read(s, R"(<Sample><IP id="1" ipAddress="a"/><IP ipAddress="b"/><Leaves><Leaf n="1"/>)"
                R"(</Leaves><Leaves><Leaf n="2"/></Leaves><Leaf n="3"/></Sample>)"),
        0);
    EXPECT_TRUE(s.address.id == 1 && s.address.ipAddress == wxS("b"));
    EXPECT_EQ(s.leaves.Values(), (std::vector<int>{1, 3}));
    // Empty input: no error, and a reset record; member children kept, list children deleted.
    ASSERT_EQ(Read(s, ""), 0);
    EXPECT_TRUE(!s.ElementWasSeen() && s.address.id == 0 && s.leaves.Children().empty());
    EXPECT_EQ(s.GetChildren().GetCount(), 2u);

    Leaves capped(2);  // the excess child is dropped with a message, and the parse goes on
    ASSERT_EQ(Read(capped, R"(<Leaves><Leaf n="1"/><Leaf n="2"/><Leaf n="3"/></Leaves>)"), 0);
    EXPECT_EQ(capped.Values(), (std::vector<int>{1, 2}));
    EXPECT_EQ(
        log.Texts(wxLOG_Error),
        Strings{"XMLObjectList::ElementNameMatches() - Too many child elements encountered."});
}

TEST(XMLObjectReadTest, MalformedDocumentsAndBadValuesAreReported) {
    CapturingLog log;
    Sample s;
    const std::string doc = "<Sample>\n\t<IP ipAddress=\"1\">\n\t</Ip>\n</Sample>\n";
    EXPECT_EQ(Read(s, doc), XML_ERROR_TAG_MISMATCH);
    // One line, columns kept (line ends as blanks, tabs as stops), the caret under the name
    // of the wrong end tag.
    EXPECT_EQ(log.Texts(wxLOG_Error),
              (Strings{"XML_ParseBuffer() failed.  Error code is 7 (mismatched tag). Buffer "
                       "contained the following XML text:",
                       R"(<Sample> .<IP ipAddress="1"> .</Ip> </Sample> )",
                       std::string(doc.find("Ip>"), ' ') + "^-- ** error location **"}));

    // A bad value names its element and place first; what was read before it stays.
    log.Clear();
    EXPECT_EQ(Read(s, "<Sample>\n\t<IP ipAddress=\"a\" id=\"1x\"/>\n</Sample>"), XML_ERROR_ABORTED);
    Strings errors = log.Texts(wxLOG_Error);
    errors.resize(2);  // the general report follows
    EXPECT_EQ(errors, (Strings{"Parse() - Bad integer value: 1x",
                               "Aborting parsing of element <IP> due to attribute errors at XML "
                               "source line 2, column 1, byte 10"}));
    EXPECT_TRUE(s.address.AttributeWasParsed(&s.address.ipAddress) &&
                !s.address.AttributeWasParsed(&s.address.id));
}

TEST(XMLObjectParseTest, ValueRulesAndMessages) {
    CapturingLog log;
    // Integers are cut to 32 bits; "-", "1-2" and overflow fail without a message.
    EXPECT_EQ(ParseEach<int>({"", "-2147483648", "4294967297", "-", "1-2", "99999999999999999999"}),
              (Strings{"0", "-2147483648", "1", "fail", "fail", "fail"}));
    EXPECT_TRUE(log.Lines().empty());
    EXPECT_EQ(ParseEach<int>({"+1", " 1"}), (Strings{"fail", "fail"}));
    EXPECT_EQ(ParseEach<long long>({"", "-", "1-2", "-9223372036854775808", "0x10"}),
              (Strings{"0", "0", "1", "-9223372036854775808", "fail"}));
    EXPECT_EQ(ParseEach<bool>({"TRUE", "fAlSe", "2", "0", "", "yes"}),
              (Strings{"1", "0", "1", "0", "0", "fail"}));
    long long big = 0;  // the message keeps 64 characters of the value
    EXPECT_FALSE(XMLObject::Parse(W(std::string(69, '9') + "x"), big));
    EXPECT_EQ(log.Texts(wxLOG_Error),
              (Strings{"Parse() - Bad integer value: +1", "Parse() - Bad integer value:  1",
                       "Parse() - Bad int64 value: 0x10", "Parse() - Bad integer value: yes",
                       "Parse() - Bad int64 value: " + std::string(64, '9')}));
}

// The readers of numbers against the C library's: any text of digits and
// minus signs, the 64-bit limits and their neighbours in particular.
TEST(XMLObjectParseTest, NumbersReadAsTheCLibraryReadsThem) {
    std::vector<std::string> texts = {"9223372036854775807",
                                      "9223372036854775808",
                                      "-9223372036854775808",
                                      "-9223372036854775809",
                                      "18446744073709551616",
                                      "-0",
                                      "000000000000000000000009223372036854775807"};
    std::mt19937 random(7);
    for (int i = 0; i < 20000; ++i) {
        std::string text(1 + random() % 22, '0');
        for (char& c : text)
            c = random() % 12 == 0 ? '-' : static_cast<char>('0' + random() % 10);
        texts.push_back(text);
    }
    for (const std::string& text : texts) {
        long long wide = 1;
        ASSERT_TRUE(XMLObject::Parse(W(text), wide)) << text;
        EXPECT_EQ(wide, atoll(text.c_str())) << text;
        errno = 0;
        char* end = nullptr;
        const long expected = strtol(text.c_str(), &end, 10);
        const bool whole = end != text.c_str() && errno != ERANGE && *end == '\0';
        int narrow = 1;
        EXPECT_EQ(XMLObject::Parse(W(text), narrow), whole) << text;
        EXPECT_EQ(narrow, whole ? static_cast<int>(expected) : 1) << text;
    }
}

}  // namespace
