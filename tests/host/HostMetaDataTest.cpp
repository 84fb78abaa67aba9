// The host metadata records: the two sort orders, merging, the digest, and
// the records as XML and Lua see them.
#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <lua.hpp>

#include "core/common/HexCodec.h"
#include "core/host/HmdQueries.h"
#include "tests/host/HmdTestSupport.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;
using VeskTest::AttributesOf;

namespace {

CHostMetaData* Item(const char* type, const char* identifier,
                    std::initializer_list<std::pair<const char*, const char*>> attributes = {}) {
    auto* item = new CHostMetaData;
    item->type = wxString::FromUTF8(type);
    item->identifier = wxString::FromUTF8(identifier);
    for (const auto& [name, value] : attributes)
        item->AppendAttribute(name, value);
    return item;
}

std::string Order(const CHostMetaDatas& items) {
    std::string out;
    for (const XMLObject* child : items.GetChildren()) {
        const auto& item = static_cast<const CHostMetaData&>(*child);
        out += item.type.utf8_string() + ":" + item.identifier.utf8_string() + " ";
    }
    return out;
}

std::string Sha1Hex(const std::string& bytes) {
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
    return toHexString(std::string(reinterpret_cast<char*>(digest), sizeof digest), false)
        .utf8_string();
}

TEST(HostMetaDataTest, AttributesSortByNameThenValueExactly) {
    std::unique_ptr<CHostMetaData> item(
        Item("t", "i", {{"b", "2"}, {"a", "3"}, {"a", "1"}, {"B", "0"}, {"a", "10"}}));
    EXPECT_EQ(AttributesOf(*item), "B=0;a=1;a=10;a=3;b=2;");
    EXPECT_EQ(item->GetAttribute("b").utf8_string(), "2");
    wxString value = wxS("stale");
    EXPECT_FALSE(item->GetAttribute("c", value));
    EXPECT_TRUE(value.empty());
}

// The search ignores case, Find does not; only MergeChild folds equal pairs.
TEST(HostMetaDataTest, ItemsSortIgnoringCaseAndMergeOnlyExactPairs) {
    CHostMetaDatas items;
    for (const char* id : {"/b", "/C", "/a", "/B"})
        items.AddChild(Item("fileInfo", id));
    items.AddChild(Item("EnvironmentVariable", "PATH"));
    EXPECT_EQ(Order(items),
              "EnvironmentVariable:PATH fileInfo:/a fileInfo:/B fileInfo:/b fileInfo:/C ");
    EXPECT_EQ(items.Find(wxS("fileinfo"), wxS("/a")), nullptr);
    ASSERT_NE(items.Find(wxS("fileInfo"), wxS("/C")), nullptr);

    items.AddChild(Item("fileInfo", "/a", {{"size", "1"}}));  // a second record of the pair
    EXPECT_EQ(items.GetChildren().GetCount(), 6u);
    items.MergeChild(Item("fileInfo", "/C", {{"size", "2"}, {"mode", "0644"}}));
    items.MergeChild(Item("fileInfo", "/C", {{"size", "2"}}));  // nothing new
    items.MergeChild(Item("fileInfo", "/C", {{"size", "3"}}));
    ASSERT_EQ(items.GetChildren().GetCount(), 6u);
    EXPECT_EQ(AttributesOf(*items.Find(wxS("fileInfo"), wxS("/C"))), "mode=0644;size=2|3;");
    // Lands on /C, is not /C: added before it, and from then on the search
    // for /C lands on /c and finds none.
    items.MergeChild(Item("fileInfo", "/c", {{"size", "4"}}));
    EXPECT_EQ(items.GetChildren().GetCount(), 7u);
    EXPECT_EQ(items.Find(wxS("fileInfo"), wxS("/C")), nullptr);

    // FindOrAdd is Find, then AddChild when Find gives none.
    const std::unique_ptr<CHostMetaData> again(Item("EnvironmentVariable", "PATH"));
    CHostMetaData* const path = items.Find(wxS("EnvironmentVariable"), wxS("PATH"));
    ASSERT_NE(path, nullptr);
    EXPECT_EQ(items.FindOrAdd(again.get()), path);
    EXPECT_EQ(items.FindOrAdd(Item("FILEINFO", "/A")), nullptr);
    EXPECT_EQ(Order(items),
              "EnvironmentVariable:PATH FILEINFO:/A fileInfo:/a fileInfo:/a "
              "fileInfo:/B fileInfo:/b fileInfo:/c fileInfo:/C ");
}

// The order is wx's CmpNoCase, texts with NUL and shared prefixes included.
TEST(HostMetaDataTest, OrderIsWxCmpNoCase) {
    const wxString texts[] = {wxString(),
                              wxS("a"),
                              wxS("A"),
                              wxS("aB"),
                              wxS("ab"),
                              wxS("abc"),
                              wxS("b"),
                              wxString(L"a\0b", 3),
                              wxString(L"a\0B", 3),
                              wxString(L"a\0", 2),
                              wxS("tcp/127.0.0.1/2000"),
                              wxS("tcp/127.0.0.1/20001"),
                              wxS("tcp/127.0.0.1/2001")};
    const auto sign = [](int value) { return (value > 0) - (value < 0); };
    for (const wxString& a : texts) {
        CHostMetaData item;
        item.type = a;
        item.identifier = a;
        for (const wxString& b : texts) {
            EXPECT_EQ(sign(item.CmpTypeAndIdentifier(a, b)), sign(a.CmpNoCase(b)));
            EXPECT_EQ(sign(item.CmpTypeAndIdentifier(b, a)), sign(a.CmpNoCase(b)));
        }
    }
}

// Parsing appends in document order; sorted adds afterwards still find
// their place by the positions as they are then.
TEST(HostMetaDataTest, AddsAfterParsingOrClearingUseTheListAsItIs) {
    CHostMetaDataQueryResult result;
    ASSERT_EQ(result.FromXML(wxS("<HostMetaDataQueryResult><HostMetaDatas>"
                                 "<HostMetaData type=\"t\" identifier=\"c\"/>"
                                 "<HostMetaData type=\"t\" identifier=\"a\"/>"
                                 "</HostMetaDatas></HostMetaDataQueryResult>"),
                             nullptr),
              0);
    result.items.AddChild(Item("t", "d"));
    EXPECT_EQ(Order(result.items), "t:c t:a t:d ");
    EXPECT_NE(result.items.Find(wxS("t"), wxS("d")), nullptr);
    result.SetToDefaults();
    result.items.AddChild(Item("t", "b"));
    result.items.AddChild(Item("t", "a"));
    EXPECT_EQ(Order(result.items), "t:a t:b ");
}

TEST(HostMetaDataTest, HashCoversSortedItemsAndEveryValue) {
    CHostMetaDataQueryResult empty;
    EXPECT_TRUE(empty.ComputeHash());
    EXPECT_EQ(empty.hash.utf8_string(), Sha1Hex(""));
    EXPECT_EQ(empty.hashAlg, wxS("SHA1"));

    CHostMetaDataQueryResult one, other;
    one.items.AddChild(Item("t", "b", {{"n", "1"}, {"m", "ü"}}));
    one.items.AddChild(Item("t", "a", {{"n", "2"}}));
    one.items.MergeChild(Item("t", "a", {{"n", "3"}}));
    other.items.AddChild(Item("t", "a", {{"n", "2"}}));
    other.items.MergeChild(Item("t", "a", {{"n", "3"}}));
    other.items.AddChild(Item("t", "b", {{"m", "ü"}, {"n", "1"}}));
    one.ComputeHash();
    other.ComputeHash();
    EXPECT_EQ(one.hash.utf8_string(), Sha1Hex("tan23tbmün1"));
    EXPECT_EQ(other.hash, one.hash);
}

// Values are digested as UTF-8 in pieces: every sequence length, NUL
// included, across piece boundaries; a value with no UTF-8 form is left out.
TEST(HostMetaDataTest, HashOfLongValuesIsTheirUtf8) {
    const std::string piece("a\0ü€😀", 11);
    std::string utf8;
    while (utf8.size() < 40000)
        utf8 += piece;
    wxString lone = wxString::FromUTF8(utf8.data(), utf8.size());
    ASSERT_GT(lone.length(), 4096u);
    lone[lone.length() / 2] = wxUniChar(0xD800);
    CHostMetaDataQueryResult result;
    CHostMetaData* item = Item("t", "i");
    item->AppendAttribute("long", wxString::FromUTF8(utf8.data(), utf8.size()));
    item->AppendAttribute("lone", lone);
    result.items.AddChild(item);
    VeskTest::CapturingLog log;
    result.ComputeHash();
    EXPECT_EQ(result.hash.utf8_string(), Sha1Hex("tilonelong" + utf8));
}

// What a manager reads: XML with values joined, Lua with a multi-valued
// attribute as the text of a table.
TEST(HostMetaDataTest, ResultAsXmlAndLua) {
    CHostMetaDataQueryResult result;
    result.items.AddChild(Item("listenPort", "udp/::/53", {{"processId", "7"}}));
    result.items.MergeChild(Item("listenPort", "udp/::/53", {{"processId", "9"}}));
    result.ComputeHash();
    const std::string xml = result.toString().utf8_string();
    EXPECT_NE(xml.find("value=\"7, 9\""), std::string::npos) << xml;

    lua_State* L = luaL_newstate();
    result.toLua(L);
    lua_rawgeti(L, -1, 1);  // HostMetaDatas
    lua_rawgeti(L, -1, 1);  // the item
    lua_rawgeti(L, -1, 1);  // its Attributes
    lua_rawgeti(L, -1, 1);  // processId
    lua_getfield(L, -1, "attr");
    lua_getfield(L, -1, "value");
    EXPECT_EQ(std::string(lua_tostring(L, -1)).rfind("table: ", 0), 0u);
    lua_close(L);
}

TEST(HostMetaDataTest, CapabilitiesAndQueriesAsXml) {
    CHostMetaDataQueryCapabilitys list;
    ASSERT_TRUE(GetHmdQueryCapabilities(list));
    ASSERT_EQ(list.GetChildren().GetCount(), 8u);
    const std::string xml = list.toString().utf8_string();
    const size_t files = xml.find("command=\"getFileContents\"");
    EXPECT_LT(xml.find("command=\"getEnvironment\""), files);  // in the order added
    EXPECT_EQ(xml.find("version=\"0\""), std::string::npos);   // 0 is the default: not written
    EXPECT_LT(xml.find("\"matchedStrings\"", files), xml.find("\"searchString\"", files));

    CHostMetaDataQuery query, back;
    query.args[15] = wxS("last");
    query.query = wxS("getFileInfo");
    ASSERT_EQ(back.FromXML(query.toString(), nullptr), 0);
    EXPECT_EQ(back.args[15], wxS("last"));
    EXPECT_EQ(back.query, wxS("getFileInfo"));
}

}  // namespace
