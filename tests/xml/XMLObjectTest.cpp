// The attribute table, reading through Expat and writing indented XML, checked against
// hand-written documents and xmllint rather than against the code's own output.
#include <expat.h>
#include <gtest/gtest.h>
#include <wx/sstream.h>

#include <climits>
#include <set>
#include <vector>

#include "core/common/SecureString.h"
#include "core/runtime/LogTrace.h"
#include "core/xml/IP.h"
#include "core/xml/XMLObjectList.h"
#include "tests/support/CapturingLog.h"
#include "tests/xml/XMLTestSupport.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

using Strings = std::vector<std::string>;
using Ints = std::vector<int>;

Strings Vec(const wxArrayString& values) {
    Strings out;
    for (const wxString& value : values)
        out.push_back(U(value));
    return out;
}

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

class Leaf : public XMLObject {
  public:
    explicit Leaf(int value = 0) : XMLObject(false, true), n(value) {
        AddAttribute("n", &n, 0, false);
    }
    wxString GetElementName() const override { return wxS("Leaf"); }
    int n = 0;
};

class Leaves : public XMLObjectList {
  public:
    explicit Leaves(unsigned long long maxChildren = 0) : XMLObjectList(true, false) {
        m_maxChildren = maxChildren;
    }
    wxString GetElementName() const override { return wxS("Leaves"); }
    wxString ChildElementName() const override { return wxS("Leaf"); }
    XMLObject* CreateListElement() const override { return new Leaf; }
    void Add(int n) { AddChild(new Leaf(n)); }
    Ints Values() const {
        Ints out;
        for (const XMLObject* child : Children())
            out.push_back(static_cast<const Leaf*>(child)->n);
        return out;
    }
};

// Every attribute type, with and without defaults, a member child and a list.
class Sample : public XMLObject {
  public:
    explicit Sample(bool strict = true) : XMLObject(false, strict) {
        AddAttribute("blob", &blob);
        AddAttribute("flag", &flag, false);
        AddAttribute("plainFlag", &plainFlag);
        AddAttribute("count", &count, 7, false);
        AddAttribute("count", &shadow, 1, false);
        AddAttribute("plainCount", &plainCount);
        AddAttribute("big", &big, 0, false);
        AddAttribute("plainBig", &plainBig);
        AddAttribute("label", &label, "");
        AddAttribute("note", &note, nullptr);
        AddAttribute("colour", &colour, "blue");
        AddAttribute("secret", &secret);
        AddAttribute("tags", &tags, ";");
        AddAttribute("words", &words, nullptr);
        AddChild(&address);
        AddChild(&leaves);
    }
    wxString GetElementName() const override { return wxS("Sample"); }
    bool IsNull(const void* member) const {
        for (const auto& entry : *m_attributes)
            if (entry.second.m_value == member)
                return entry.second.m_isNull;
        return false;
    }

    wxMemoryBuffer blob;
    bool flag = false, plainFlag = false;
    int count = 7, shadow = 99, plainCount = 0;
    long long big = 0, plainBig = 0;
    wxString label, note, colour = wxS("blue");
    wxSecureString secret;
    wxArrayString tags, words;
    CIP address;
    Leaves leaves;
};

class Note : public XMLObject {
  public:
    explicit Note(bool collectsText) : XMLObject(collectsText, true) {}
    wxString GetElementName() const override { return wxS("Note"); }
    void SetText(const wxString& text) { m_text = text; }
};

TEST(XMLObjectModelTest, EnumerationNullFlagsAndDefaults) {
    Sample s;
    EXPECT_EQ(Declared(s),
              (std::set<std::string>{"blob=0", "flag=1", "plainFlag=1", "count=2", "plainCount=2",
                                     "big=3", "plainBig=3", "label=4", "note=4", "colour=4",
                                     "secret=5", "tags=6", "words=6"}));
    int calls = 0;
    auto stop = [](const XMLObject*, const char*, _PrimitiveType, const void*, void* n) {
        return ++*static_cast<int*>(n) == 0;
    };
    EXPECT_FALSE(s.EnumAttributes(stop, &calls));
    EXPECT_TRUE(XMLObject(false, true).EnumAttributes(stop, &calls) && calls == 1);
    std::vector<const XMLObject*> children;
    auto child = [](const XMLObject*, const XMLObject* c, void* out) {
        static_cast<std::vector<const XMLObject*>*>(out)->push_back(c);
        return !c->IsCollection();
    };
    EXPECT_FALSE(s.EnumChildObjects(child, &children));  // stopped at the list
    EXPECT_EQ(children, (std::vector<const XMLObject*>{&s.address, &s.leaves}));

    // "count" was registered twice: the first member is bound, the second never touched.
    EXPECT_TRUE(s.GetAttributeName(&s.count) == wxS("count") &&
                s.GetAttributeName(&s.shadow).empty());
    EXPECT_TRUE(s.IsNull(&s.count) && s.SetAttribute(wxS("count"), wxS("12")));
    EXPECT_TRUE(s.AttributeWasParsed(&s.count) && !s.IsNull(&s.count));
    {
        CapturingLog log;
        EXPECT_TRUE(s.SetAttribute(wxS("Count"), wxS("5")) && s.count == 12);  // another name
        EXPECT_FALSE(s.SetAttribute(wxS("count"), wxS("12x")));
        EXPECT_EQ(log.Texts(wxLOG_Error), Strings{"Parse() - Bad integer value: 12x"});
    }
    EXPECT_TRUE(!s.AttributeWasParsed(&s.count) && s.IsNull(&s.count) && s.shadow == 99);
    s.colour = wxS("red");
    s.SetAttributeNull(&s.colour, false);
    EXPECT_TRUE(!s.IsNull(&s.colour) && s.colour == wxS("red"));
    s.SetAttributeNull(&s.colour, true);
    EXPECT_TRUE(s.IsNull(&s.colour) && s.colour == wxS("blue"));

    // Member children stay attached and are reset; a list's children are deleted.
    s.leaves.Add(1);
    s.address.ipAddress = wxS("a");
    s.blob.AppendData("abc", 3);
    const size_t capacity = s.blob.GetBufSize();
    s.SetToDefaults();
    EXPECT_TRUE(s.count == 7 && s.blob.GetDataLen() == 0 && s.blob.GetBufSize() == capacity);
    EXPECT_TRUE(s.address.ipAddress.empty() && s.leaves.Children().empty());
    EXPECT_EQ(s.GetChildren().GetCount(), 2u);
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
    s.big = 9007199254740993LL;  // beyond a double's precision
    s.plainBig = LLONG_MIN;
    s.label = W("a<b>&\"c'\t\n\r");
    s.note = W("Zürich €");
    s.colour = wxString();  // off its default
    s.secret.assign("s3cr3t");
    s.tags.Add(wxS("x"));
    s.tags.Add(wxS("y"));
    s.words.Add(wxString());  // one empty entry counts as none
    xml = U(s.toString());
    EXPECT_EQ(Attrs(xml), R"( big="9007199254740993" blob="AAH+aGk=" colour="" count="-5")"
                          R"( flag="true" label="a&lt;b&gt;&amp;&quot;c&apos;&#x9;&#xA;&#xD;")"
                          R"( note="Zürich €" plainBig="-9223372036854775808" plainCount="0")"
                          R"( plainFlag="true" secret="s3cr3t" tags="x; y")");
    EXPECT_TRUE(XmllintAccepts(xml));

    std::string every, readable;  // every byte up to 127; XML keeps only some control bytes
    for (int c = 1; c < 128; ++c) {
        every += static_cast<char>(c);
        const bool lost = (c < 32 && c != '\t' && c != '\n' && c != '\r') || c == 127;
        readable += lost ? std::string("\xEF\xBF\xBD") : every.substr(every.size() - 1);
    }
    s.label = W(every);
    s.tags.RemoveAt(1);  // a second entry would gain a leading blank on the way back
    s.address.id = 3;
    s.address.ipAddress = wxS("192.0.2.1");
    for (int n : {1, -2, 3})
        s.leaves.Add(n);
    xml = U(s.toString());
    EXPECT_TRUE(XmllintAccepts(xml));
    Sample back;
    ASSERT_EQ(Read(back, xml), 0);
    EXPECT_EQ(U(back.toString()), xml);
    EXPECT_EQ(U(back.label), readable);
    EXPECT_EQ(std::string(static_cast<const char*>(back.blob.GetData()), back.blob.GetDataLen()),
              std::string("\x00\x01\xFEhi", 5));
    EXPECT_TRUE(back.big == s.big && back.plainBig == LLONG_MIN && back.address.id == 3);
    EXPECT_EQ(back.leaves.Values(), (Ints{1, -2, 3}));
    Sample copy;
    copy.CopyFrom(s);
    EXPECT_EQ(U(copy.toString()), xml);

    // The same document as another tool lays it out: a declaration, two-blank indents.
    ScratchDir dir;
    WriteFile(dir / "doc.xml", xml);
    const std::string formatted = ToolOutput("xmllint --format '" + (dir / "doc.xml") + "'");
    EXPECT_EQ(formatted.substr(0, 5), "<?xml");
    ASSERT_EQ(Read(copy, formatted), 0);
    EXPECT_EQ(U(copy.toString()), xml);

    s.secret.assign("a\"&b");  // secrets go out exactly as held
    EXPECT_NE(U(s.toString()).find(" secret=\"a\"&b\""), std::string::npos);
}

TEST(XMLObjectWriteTest, QuotingTextIndentAndArrays) {
    const wxString specials = W("\t\n\r\"&'<>");
    EXPECT_EQ(U(XMLObject::QuoteAttribute(specials)), "&#x9;&#xA;&#xD;&quot;&amp;&apos;&lt;&gt;");
    EXPECT_EQ(U(XMLObject::QuoteCharData(specials)), "\t\n\r\"&amp;'&lt;&gt;");
    for (bool charData : {false, true}) {
        EXPECT_EQ(U(XMLObject::QuoteString(W("a\x07z\x1F\x7F"), charData)),
                  "a\xEF\xBF\xBDz\xEF\xBF\xBD\xEF\xBF\xBD");
        EXPECT_EQ(U(XMLObject::QuoteString(W("Zürich € 😀"), charData)), "Zürich € 😀");
        EXPECT_EQ(U(XMLObject::QuoteString(wxString(), charData)), "");
    }

    // Text follows the children unindented; reading it back keeps the line breaks and tabs.
    Note note(true);
    note.SetText(W("a \"q\" & <b>\tc"));
    wxStringOutputStream out(nullptr, wxConvUTF8);
    note.ToXML(out, 2);
    const std::string written = U(out.GetString());
    EXPECT_EQ(written, "\t\t<Note>\na \"q\" &amp; &lt;b&gt;\tc\n\t\t</Note>\n");
    ASSERT_EQ(Read(note, written), 0);
    EXPECT_EQ(U(note.GetText()), "\na \"q\" & <b>\tc\n\t\t");
    Note deaf(false);
    ASSERT_EQ(Read(deaf, written), 0);
    EXPECT_EQ(U(deaf.toString()), "<Note />\n");
    Leaves full, empty;
    full.Add(8);
    full.CopyFrom(empty);
    EXPECT_TRUE(full.Children().empty() && empty.toString().empty());

    wxArrayString values;
    EXPECT_EQ(U(XMLObject::Print(values, nullptr)), "");
    values.Add(wxS("a"));
    values.Add(wxS("b"));
    EXPECT_EQ(U(XMLObject::Print(values, nullptr) + wxS("|") + XMLObject::Print(values, ";,")),
              "a, b|a; b");
    values.Insert(wxString(), 0);
    values.Insert(wxString(), 2);
    EXPECT_EQ(U(XMLObject::Print(values, nullptr)), "a, , b");
    // Read back, tokens keep their blanks; any separator character splits, empty tokens drop.
    EXPECT_TRUE(XMLObject::Parse(wxS("a, b"), values, nullptr));
    EXPECT_EQ(Vec(values), (Strings{"a", " b"}));
    EXPECT_TRUE(XMLObject::Parse(wxS(";x;;y,z ;"), values, ";,"));
    EXPECT_EQ(Vec(values), (Strings{"x", "y", "z "}));
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
    EXPECT_EQ(Vec(s.tags), (Strings{"one", "two"}));
    EXPECT_TRUE(s.address.ipAddress == wxS("10.1.2.3") && s.address.notAvailable &&
                s.address.id == 4);
    EXPECT_EQ(s.leaves.Values(), (Ints{5, 7}));
    Note note(true);
    ASSERT_EQ(Read(note, "<Note><![CDATA[x <y> & \"z\"]]> tail<!-- c --></Note>"), 0);
    EXPECT_EQ(U(note.GetText()), "x <y> & \"z\" tail");
}

TEST(XMLObjectReadTest, NameRulesPlaceholdersAndListMatching) {
    CapturingLog log;
    TraceMasksSet("XML");
    Sample s, lax(false);
    ASSERT_EQ(Read(s, R"(<sample count="3"/>)"), 0);
    EXPECT_TRUE(!s.ElementWasSeen() && s.count == 7);
    ASSERT_EQ(Read(lax, R"(<SAMPLE COUNT="3" Label="x"/>)"), 0);
    EXPECT_TRUE(lax.ElementWasSeen() && lax.count == 3 && lax.label == wxS("x"));

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
    EXPECT_TRUE(s.leaves.Children().empty() && s.address.id == 0);
    EXPECT_TRUE(log.Contains("Child element <Other> being ignored by element <Sample>"));

    // A repeated plain child is applied again; a list is entered once, after which its
    // children may also stand directly in the parent.
    ASSERT_EQ(
        Read(s, R"(<Sample><IP id="1" ipAddress="a"/><IP ipAddress="b"/><Leaves><Leaf n="1"/>)"
                R"(</Leaves><Leaves><Leaf n="2"/></Leaves><Leaf n="3"/></Sample>)"),
        0);
    EXPECT_TRUE(s.address.id == 1 && s.address.ipAddress == wxS("b"));
    EXPECT_EQ(s.leaves.Values(), (Ints{1, 3}));

    Leaves capped(2);
    ASSERT_EQ(Read(capped, R"(<Leaves><Leaf n="1"/><Leaf n="2"/><Leaf n="3"/></Leaves>)"), 0);
    EXPECT_EQ(capped.Values(), (Ints{1, 2}));
    EXPECT_EQ(
        log.Texts(wxLOG_Error),
        Strings{"XMLObjectList::ElementNameMatches() - Too many child elements encountered."});
    for (const char* other : {R"(<Other count="1"/>)", ""}) {
        s.count = 1;
        ASSERT_EQ(Read(s, other), 0);
        EXPECT_TRUE(!s.ElementWasSeen() && s.count == 7);
    }
    TraceMasksSet("");
}

TEST(XMLObjectReadTest, MalformedDocumentsAndBadValuesAreReported) {
    CapturingLog log;
    Sample s;
    const std::string doc = "<Sample>\n\t<IP ipAddress=\"1\">\n\t</Ip>\n</Sample>\n";
    EXPECT_EQ(Read(s, doc), XML_ERROR_TAG_MISMATCH);
    // One line, columns kept (line ends as blanks, tabs as stops), the caret under byte 32:
    // the name of the wrong end tag.
    ASSERT_EQ(doc.compare(32, 2, "Ip"), 0);
    EXPECT_EQ(log.Texts(wxLOG_Error),
              (Strings{"XML_ParseBuffer() failed.  Error code is 7 (mismatched tag). Buffer "
                       "contained the following XML text:",
                       R"(<Sample> .<IP ipAddress="1"> .</Ip> </Sample> )",
                       std::string(32, ' ') + "^-- ** error location **"}));

    log.Clear();
    EXPECT_EQ(Read(s, "<Sample>\n\t<IP ipAddress=\"a\" id=\"1x\"/>\n</Sample>"), XML_ERROR_ABORTED);
    Strings errors = log.Texts(wxLOG_Error);
    errors.resize(3);
    EXPECT_EQ(errors, (Strings{"Parse() - Bad integer value: 1x",
                               "Aborting parsing of element <IP> due to attribute errors at XML "
                               "source line 2, column 1, byte 10",
                               "XML_ParseBuffer() failed.  Error code is " +
                                   std::to_string(XML_ERROR_ABORTED) + " (" +
                                   XML_ErrorString(XML_ERROR_ABORTED) +
                                   "). Buffer contained the following XML text:"}));
    EXPECT_TRUE(s.address.AttributeWasParsed(&s.address.ipAddress) &&
                !s.address.AttributeWasParsed(&s.address.id));
    log.Clear();  // "-" fails as an int without a message of its own
    EXPECT_EQ(Read(s, R"(<Sample count="-"/>)"), XML_ERROR_ABORTED);
    EXPECT_EQ(log.Texts(wxLOG_Error).at(0),
              "Aborting parsing of element <Sample> due to attribute errors at XML source line 1, "
              "column 0, byte 0");
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

}  // namespace
