// Records in SQLite: statement text, binds, row ids, lists, and the digest aggregate, checked
// against files that the sqlite3 tool reads and writes.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <wx/wxsqlite3.h>

#include "core/xml/Interface.h"
#include "core/xml/SqlConnection.h"
#include "core/xml/SqlHashAggregate.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/Tools.h"
#include "tests/xml/XMLTestSupport.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

// Addresses kept in a table of their own name, at most two of them.
class TwoAddresses : public CIPs {
  public:
    TwoAddresses() { m_maxChildren = 2; }
    wxString GetElementName() const override { return wxS("Addresses"); }
};

// The attribute names in table order, each followed by `tail`, `skip` left out.
std::string Columns(const XMLObject& record, std::string tail, std::string skip = "") {
    std::string columns[3] = {"", tail, skip};
    record.EnumAttributes(
        [](const XMLObject*, const char* name, _PrimitiveType, const void*, void* out) {
            auto* c = static_cast<std::string*>(out);
            if (name != c[2])
                c[0] += (c[0].empty() ? "" : ",") + std::string(name) + c[1];
            return true;
        },
        columns);
    return columns[0];
}

std::string Repeated(const std::string& text, size_t times) {
    std::string out;
    while (times-- > 0)
        out += text;
    return out;
}

CIP* Ip(XMLObject* child) {
    return static_cast<CIP*>(child);
}

class SqlMappingTest : public testing::Test {
  protected:
    void SetUp() override {
        VESK_SKIP_WITHOUT_TOOLS("sqlite3", "sha1sum", "sha256sum", "sha512sum");
        const std::string addresses = " (id INTEGER PRIMARY KEY, ipAddress, notAvailable);";
        Tool(
            "create table Samples (big INTEGER PRIMARY KEY, blob, flag, plainFlag, count,"
            " plainCount, plainBig, label, note, colour, secret, tags, words, größe); create table "
            "Interfaces (id INTEGER PRIMARY KEY, name, notAvailable,"
            " bridgeName, dhcp, typeId, typeName, mac, virtualDeviceKey); create table IPs" +
            addresses + "create table Addresses" + addresses);
        db_.Open(wxString::FromUTF8(file_));
    }
    // What the sqlite3 tool prints for `sql` on the test's file.
    std::string Tool(const std::string& sql) {
        return ToolOutput("sqlite3 '" + file_ + "' \"" + sql + "\"");
    }

    ScratchDir dir_;
    std::string file_ = dir_ / "records.db";
    wxSQLite3Database db_;
};

TEST_F(SqlMappingTest, StatementTextFollowsTheAttributeTable) {
    // Columns unbracketed everywhere; the key bracketed in the update only.
    CInterface nic;
    EXPECT_EQ(nic.GetSQLInsertStatement(nullptr).utf8_string(),
              "INSERT INTO [Interfaces] (" + Columns(nic, "") + ") VALUES (?,?,?,?,?,?,?,?,?);");
    EXPECT_EQ(nic.GetSQLUpdateStatement(nullptr).utf8_string(),
              "UPDATE [Interfaces] SET " + Columns(nic, "=?", "id") + " WHERE [id]=?;");
    EXPECT_EQ(nic.GetSQLLoadStatement("main"), wxS("SELECT * FROM main.[Interfaces] WHERE id=?;"));
    EXPECT_EQ(nic.GetSQLDeleteStatement("aux"), wxS("DELETE FROM aux.[Interfaces] WHERE id=?;"));

    // Without a key only inserts can be built; an update refuses even a prepared statement.
    Leaf plain;
    EXPECT_EQ(plain.GetSQLInsertStatement(nullptr), wxS("INSERT INTO [Leafs] (n) VALUES (?);"));
    wxSQLite3Statement update = db_.PrepareStatement(wxS("SELECT ?;"));
    EXPECT_THROW(plain.GetSQLLoadStatement(nullptr), wxSQLite3Exception);
    EXPECT_THROW(plain.GetSQLUpdateStatement(nullptr), wxSQLite3Exception);
    EXPECT_THROW(plain.SQLUpdate(update), wxSQLite3Exception);
    EXPECT_THROW(plain.GetSQLDeleteStatement(nullptr), wxSQLite3Exception);
}

TEST_F(SqlMappingTest, RecordGoesThroughTheFileAndTheSqliteTool) {
    Tool("insert into Samples (big) values (9000000000);");
    Sample sample;
    sample.blob.AppendData("\x00\xFF\x01", 3);
    sample.flag = true;
    sample.count = -5;
    sample.colour = W("Zürich €");
    sample.secret.assign("s3cret");
    sample.tags.Add(wxS("a"));
    sample.tags.Add(wxS("b"));
    sample.MarkFilled();
    ASSERT_EQ(sample.SQLInsert(db_, nullptr), 1);
    EXPECT_EQ(sample.big, 9000000001LL);           // the next row id, whole
    ASSERT_EQ(sample.SQLInsert(db_, nullptr), 1);  // the key stays null: a new row
    EXPECT_EQ(sample.big, 9000000002LL);

    // Loaded and updated with every value as loaded but two: what went in comes back out,
    // and the array's second entry keeps the blank it was stored with.
    Sample loaded;
    loaded.big = 9000000001LL;
    ASSERT_TRUE(loaded.SQLLoad(db_, nullptr));
    loaded.count = 99;
    loaded.colour += wxS("!");
    EXPECT_EQ(loaded.SQLUpdate(db_, nullptr), 1);
    EXPECT_EQ(sample.SQLDelete(db_, nullptr), 1);  // 9000000002
    EXPECT_EQ(Tool("select big, typeof(blob), hex(blob), flag, count, hex(colour), secret, tags"
                   " from Samples order by big;"),
              "9000000000|null||||||\n"
              "9000000001|blob|00FF01|1|99|5AC3BC7269636820E282AC21|s3cret|a;  b\n");

    // A row from the tool; NULL columns leave the defaults, unparsed.
    Tool(
        "insert into Samples (big, blob, flag, colour, tags)"
        " values (7, X'CAFE', 0, 'tool', 'x;y;z');");
    loaded.big = 7;
    ASSERT_TRUE(loaded.SQLLoad(db_, nullptr));
    EXPECT_TRUE(loaded.blob.GetDataLen() == 2 && !loaded.flag && loaded.secret.empty());
    EXPECT_TRUE(loaded.count == 7 && !loaded.AttributeWasParsed(&loaded.count));
    EXPECT_TRUE(loaded.colour == wxS("tool") && loaded.AttributeWasParsed(&loaded.colour));
    EXPECT_EQ(wxJoin(loaded.tags, '|'), wxS("x|y|z"));
    loaded.big = 8;  // no such row: the defaults, and success
    EXPECT_TRUE(loaded.SQLLoad(db_, nullptr));
    EXPECT_TRUE(loaded.colour == wxS("blue") && loaded.blob.GetDataLen() == 0);
    // An interface's bytes follow whatever text arrives, in any case and separator.
    Tool("insert into Interfaces (id, mac) values (5, '0a-1b-2c-3d-4e-5f');");
    CInterface wlan;
    wlan.id = 5;
    ASSERT_TRUE(wlan.SQLLoad(db_, nullptr));
    EXPECT_EQ(wlan.macBinary, std::string("\x0A\x1B\x2C\x3D\x4E\x5F", 6));

    Sample unmarked;  // values assigned, never marked: every column NULL
    unmarked.flag = true;
    unmarked.SQLInsert(db_, nullptr);
    Sample empty;  // marked, but empty: a blob or secret is NULL, text is text
    empty.MarkFilled();
    empty.SQLInsert(db_, nullptr);
    EXPECT_EQ(Tool("select quote(blob), quote(flag), quote(count), quote(label), quote(secret),"
                   " quote(tags) from Samples where big > 9000000001 order by big;"),
              "NULL|NULL|NULL|NULL|NULL|NULL\nNULL|0|7|''|NULL|''\n");
}

TEST_F(SqlMappingTest, ListsRunOneStatementForAllChildren) {
    CIPs ips;  // empty: nothing is prepared, so a missing table does not matter
    wxSQLite3Database none;
    none.Open(wxS(":memory:"));
    EXPECT_EQ(ips.SQLInsert(none) + ips.SQLUpdate(none) + ips.SQLDelete(none), 0);

    for (const char* address : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) {
        auto* ip = new CIP;
        ip->ipAddress = wxString::FromUTF8(address);
        ip->SetAttributeNull(&ip->ipAddress, false);
        ips.AddChild(ip);
    }
    Tool("insert into IPs (id) values (20);");
    EXPECT_EQ(ips.SQLInsert(db_), 3);
    EXPECT_EQ(Ip(ips.Children()[0])->id + Ip(ips.Children()[2])->id, 21 + 23);
    Ip(ips.Children().back())->ipAddress = wxS("10.0.0.30");
    EXPECT_EQ(ips.SQLUpdate(db_), 3);
    EXPECT_EQ(Tool("select max(id), group_concat(ipAddress) from IPs;"),
              "23|10.0.0.1,10.0.0.2,10.0.0.30\n");
    CIPs loaded;
    ASSERT_TRUE(loaded.SQLLoad(db_));
    ASSERT_EQ(loaded.Children().size(), 4u);
    EXPECT_EQ(Ip(loaded.Children().back())->ipAddress, wxS("10.0.0.30"));
    EXPECT_EQ(ips.SQLDelete(db_), 3);
    EXPECT_EQ(Tool("select id from IPs;"), "20\n");

    // A caller's own statement: the row ids come through the connection made known.
    wxString text = CIP().GetSQLInsertStatement(nullptr);
    text.Replace(wxS("[IPs]"), wxS("[Addresses]"));
    wxSQLite3Statement insert = db_.PrepareStatement(text);
    {
        SqlConnection connection(db_);
        EXPECT_EQ(ips.SQLInsert(insert), 3);
    }
    EXPECT_EQ(Ip(ips.Children().back())->id, 3);
    CapturingLog log;  // without one, the row id is not read, and that is said
    Ip(ips.Children().back())->SQLInsert(insert);
    EXPECT_EQ(Ip(ips.Children().back())->id, 3);
    EXPECT_TRUE(log.Contains("SQLInsert()"));
    TwoAddresses two;  // loads from its own table, and fails past its limit
    EXPECT_FALSE(two.SQLLoad(db_));
    EXPECT_EQ(two.Children().size(), 2u);
    EXPECT_TRUE(log.Contains("XMLObjectList::SQLLoad() - Too many child elements encountered."));

    Tool("insert into IPs (id) values (4294967301);");  // an int key takes the row id cut short
    Ip(ips.Children().front())->SQLInsert(db_, nullptr);
    EXPECT_EQ(Ip(ips.Children().front())->id, 6);
}

// Text goes in as the wrapper's own Bind of a wxString puts it (UTF-8, cut
// at a NUL), and a parameter no attribute fills reads NULL even after the
// caller bound it.
TEST_F(SqlMappingTest, InsertBindsEveryParameterAsTheWrapperWould) {
    Tool("create table Extras (id INTEGER PRIMARY KEY, ipAddress, notAvailable, more);");
    wxString text = CIP().GetSQLInsertStatement(nullptr);
    text.Replace(wxS("[IPs]"), wxS("[Extras]"));
    text.Replace(wxS(") VALUES ("), wxS(",more) VALUES (?,"));
    wxSQLite3Statement insert = db_.PrepareStatement(text);
    const wxString texts[] = {wxString::FromUTF8("gr\303\266\303\237e"), wxString(L"a\0b", 3),
                              wxString(300, wxUniChar('x')), wxString()};
    for (const wxString& value : texts) {
        insert.Bind(4, wxS("stale"));  // the extra parameter, last
        CIP ip;
        ip.ipAddress = value;
        ip.SetAttributeNull(&ip.ipAddress, false);
        SqlConnection connection(db_);
        EXPECT_EQ(ip.SQLInsert(insert), 1);
    }
    EXPECT_EQ(Tool("select hex(ipAddress), more is null from Extras order by id;"),
              "6772C3B6C39F65|1\n61|1\n" + Repeated("78", 300) + "|1\n|1\n");
}

TEST_F(SqlMappingTest, HashAggregateDigestsTheValuesAsTheShellToolsDo) {
    CSqlHashAggregate hash;
    ASSERT_TRUE(db_.CreateFunction(wxS("digest"), 2, hash));
    Tool(
        "create table words (n INTEGER PRIMARY KEY, g, v); insert into words values"
        " (1,'a','alpha'), (2,'a','Z\xC3\xBCrich'), (3,'b',''), (4,'a',NULL), (5,'b',42),"
        " (6,'a','\xE2\x82\xAC');");
    auto query = [&](const std::string& select) {
        return db_.ExecuteQuery(wxString::FromUTF8(select)).GetString(0).utf8_string();
    };
    auto digest = [&](const std::string& where, const std::string& name) {
        return query("select hex(digest(v, " + name + ")) from (select v from words where " +
                     where + " order by n);");
    };
    auto shell = [](const std::string& text, const char* tool) {
        return ToolOutput("printf '%s' '" + text + "' | " + tool +
                          " | cut -d' ' -f1 | tr -d '\\n' | tr a-f A-F");
    };
    // Values in row order: NULL adds nothing, a number its text; a NULL name is sha1.
    EXPECT_EQ(digest("1", "'sha256'"), shell("alphaZ\xC3\xBCrich42\xE2\x82\xAC", "sha256sum"));
    EXPECT_EQ(digest("g = 'a'", "NULL"), shell("alphaZ\xC3\xBCrich\xE2\x82\xAC", "sha1sum"));
    // An empty group never saw a name: the digest of nothing, by sha1. Groups hash apart.
    EXPECT_EQ(digest("0", "'sha256'"), shell("", "sha1sum"));
    EXPECT_EQ(query("select group_concat(hex(d)) from (select g, digest(v, 'sha512') d from words"
                    " where n in (1, 3) group by g order by g);"),
              shell("alpha", "sha512sum") + "," + shell("", "sha512sum"));
    // A name OpenSSL does not know gives NULL and leaves no error queued for the next caller.
    EXPECT_EQ(query("select digest(v, 'no-such-digest') is null from words;"), "1");
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

}  // namespace
