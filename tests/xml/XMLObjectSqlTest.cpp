// Records in SQLite: statement text, binds, row ids, lists, and the digest aggregate, checked
// against files that the sqlite3 tool reads and writes.
#include <gmock/gmock.h>
#include <wx/wxsqlite3.h>

#include <functional>

#include "core/common/SecureString.h"
#include "core/xml/Interface.h"
#include "core/xml/SqlConnection.h"
#include "core/xml/SqlHashAggregate.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;
using namespace VeskTest;
using testing::AllOf;
using testing::EndsWith;
using testing::StartsWith;

namespace {

// A record whose attributes the test registers.
class Record : public XMLObject {
  public:
    explicit Record(const char* element) : XMLObject(false, true), element_(element) {}
    wxString GetElementName() const override { return wxString::FromUTF8(element_); }
    const char* element_;
};

// One attribute of every kind, keyed by a 64-bit row id.
class Gadget : public Record {
  public:
    Gadget() : Record("Gadget") {
        AddAttribute("serial", &serial, 0LL, true);
        AddAttribute("data", &data);
        AddAttribute("flag", &flag);
        AddAttribute("level", &level, 7, false);
        AddAttribute("label", &label, "none");
        AddAttribute("secret", &secret);
        AddAttribute("tags", &tags, ";");
    }
    void MarkFilled() {
        for (const void* member :
             std::initializer_list<const void*>{&data, &flag, &level, &label, &secret, &tags})
            SetAttributeNull(member, false);
    }
    long long serial = 0;
    wxMemoryBuffer data;
    bool flag = false;
    int level = 7;
    wxString label;
    wxSecureString secret;
    wxArrayString tags;
};

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

template <typename Action>
std::string Thrown(Action action) {
    try {
        action();
    } catch (const wxSQLite3Exception& e) {
        return std::to_string(e.GetExtendedErrorCode()) + " " + e.GetMessage().utf8_string();
    }
    return "nothing thrown";
}

CIP* Ip(XMLObject* child) {
    return static_cast<CIP*>(child);
}

class SqlMappingTest : public testing::Test {
  protected:
    void SetUp() override {
        const std::string addresses = " (id INTEGER PRIMARY KEY, ipAddress, notAvailable);";
        Tool(
            "create table Gadgets (serial INTEGER PRIMARY KEY, data, flag, level, label, secret,"
            " tags); create table Interfaces (id INTEGER PRIMARY KEY, name, notAvailable,"
            " bridgeName, dhcp, typeId, typeName, mac, virtualDeviceKey); create table IPs" +
            addresses + "create table Addresses" + addresses);
        db_.Open(wxString::FromUTF8(file_));
    }
    // What the sqlite3 tool prints for `sql` on the test's file.
    std::string Tool(const std::string& sql, const std::string& file = "") {
        return ToolOutput("sqlite3 '" + (file.empty() ? file_ : file) + "' \"" + sql + "\"");
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

    // Load and delete take the first key met, update the last.
    Record pair("Pair");
    int alpha = 0, beta = 0;
    pair.AddAttribute("alpha", &alpha, 0, true);
    pair.AddAttribute("beta", &beta, 0, true);
    const std::string keys = Columns(pair, ""), first = keys.substr(0, keys.find(','));
    EXPECT_EQ(pair.GetSQLLoadStatement(nullptr).utf8_string(),
              "SELECT * FROM [Pairs] WHERE " + first + "=?;");
    EXPECT_EQ(pair.GetSQLDeleteStatement(nullptr).utf8_string(),
              "DELETE FROM [Pairs] WHERE " + first + "=?;");
    EXPECT_EQ(pair.GetSQLUpdateStatement(nullptr).utf8_string(),
              "UPDATE [Pairs] SET WHERE [" + keys.substr(keys.find(',') + 1) + "]=?;");

    Record plain("Plain");
    wxString note;
    plain.AddAttribute("note", &note, nullptr);
    EXPECT_EQ(plain.GetSQLInsertStatement(nullptr), wxS("INSERT INTO [Plains] (note) VALUES (?);"));
    Tool("create table Plains (note);");
    wxSQLite3Statement update = db_.PrepareStatement(wxS("UPDATE Plains SET note=?;"));
    for (auto [action, text] : std::vector<std::pair<std::function<void()>, std::string>>{
             {[&] { plain.GetSQLLoadStatement(nullptr); }, "GetSQLLoadStatement() require a"},
             {[&] { plain.SQLLoad(db_, nullptr); }, "GetSQLLoadStatement() require a"},
             {[&] { plain.GetSQLUpdateStatement(nullptr); }, "Updates require a"},
             {[&] { plain.SQLUpdate(update); }, "Updates require a"},
             {[&] { plain.GetSQLDeleteStatement(nullptr); }, "Deletes require a"}})
        EXPECT_THAT(Thrown(action), AllOf(StartsWith("-1 "), EndsWith(text + " primary key")));

    // One character is cut before each closing part, whatever it is.
    Record bare("X");
    EXPECT_EQ(bare.GetSQLInsertStatement(nullptr), wxS("INSERT INTO [Xs] ) VALUES );"));
    EXPECT_THROW(bare.SQLInsert(db_, nullptr), wxSQLite3Exception);
}

TEST_F(SqlMappingTest, RecordGoesThroughTheFileAndTheSqliteTool) {
    Tool("insert into Gadgets (serial) values (9000000000);");
    Gadget gadget;
    gadget.data.AppendData("\x00\xFF\x01", 3);
    gadget.flag = true;
    gadget.level = -5;
    gadget.label = wxString::FromUTF8("Z\xC3\xBCrich \xE2\x82\xAC");
    gadget.secret.assign("s3cret");
    gadget.tags.Add(wxS("a"));
    gadget.tags.Add(wxS("b"));
    gadget.MarkFilled();
    ASSERT_EQ(gadget.SQLInsert(db_, nullptr), 1);
    EXPECT_EQ(gadget.serial, 9000000001LL);  // the next row id, whole
    EXPECT_EQ(Tool("select serial, typeof(data), hex(data), flag, level, hex(label), secret, tags"
                   " from Gadgets where serial > 9000000000;"),
              "9000000001|blob|00FF01|1|-5|5AC3BC7269636820E282AC|s3cret|a; b\n");
    ASSERT_EQ(gadget.SQLInsert(db_, nullptr), 1);  // the key stays null: a new row
    EXPECT_EQ(gadget.serial, 9000000002LL);

    Gadget loaded;
    loaded.serial = 9000000001LL;
    ASSERT_TRUE(loaded.SQLLoad(db_, nullptr));
    EXPECT_EQ(
        wxString::From8BitData(static_cast<char*>(loaded.data.GetData()), loaded.data.GetDataLen()),
        wxString::From8BitData("\x00\xFF\x01", 3));
    EXPECT_TRUE(loaded.flag && loaded.level == -5 && loaded.label == gadget.label);
    EXPECT_EQ(wxJoin(loaded.tags, '|'), wxS("a| b"));  // the blank stays
    EXPECT_TRUE(loaded.AttributeWasParsed(&loaded.label));
    loaded.level = 99;
    loaded.label = wxS("renamed");
    EXPECT_EQ(loaded.SQLUpdate(db_, nullptr), 1);  // the loaded secret goes back too
    EXPECT_EQ(gadget.SQLDelete(db_, nullptr), 1);  // 9000000002
    EXPECT_EQ(Tool("select serial, level, label, secret from Gadgets order by serial;"),
              "9000000000|||\n9000000001|99|renamed|s3cret\n");

    // A row from the tool; NULL columns leave the defaults, unparsed.
    Tool("insert into Gadgets values (7, X'CAFE', 0, NULL, 'tool', NULL, 'x;y;z');");
    loaded.serial = 7;
    ASSERT_TRUE(loaded.SQLLoad(db_, nullptr));
    EXPECT_TRUE(loaded.data.GetDataLen() == 2 && !loaded.flag && loaded.secret.empty());
    EXPECT_EQ(loaded.level, 7);
    EXPECT_FALSE(loaded.AttributeWasParsed(&loaded.level));
    EXPECT_EQ(wxJoin(loaded.tags, '|'), wxS("x|y|z"));
    loaded.serial = 8;  // no such row: the defaults, and success
    EXPECT_TRUE(loaded.SQLLoad(db_, nullptr));
    EXPECT_TRUE(loaded.label == wxS("none") && loaded.data.GetDataLen() == 0);
    // An interface's bytes follow whatever text arrives, in any case and separator.
    Tool("insert into Interfaces (id, name, mac) values (5, 'wlan0', '0a-1b-2c-3d-4e-5f');");
    CInterface wlan;
    wlan.id = 5;
    ASSERT_TRUE(wlan.SQLLoad(db_, nullptr));
    EXPECT_EQ(wlan.name, wxS("wlan0"));
    EXPECT_EQ(wlan.macBinary, std::string("\x0A\x1B\x2C\x3D\x4E\x5F", 6));

    Gadget unmarked;  // values assigned, never marked: every column NULL
    unmarked.flag = true;
    unmarked.label = wxS("set");
    unmarked.SQLInsert(db_, nullptr);
    Gadget empty;  // marked, but empty: a blob or secret is NULL, text is text
    empty.MarkFilled();
    empty.label.clear();
    empty.SQLInsert(db_, nullptr);
    EXPECT_EQ(Tool("select quote(data), quote(flag), quote(level), quote(label), quote(secret),"
                   " quote(tags) from Gadgets where serial > 9000000001 order by serial;"),
              "NULL|NULL|NULL|NULL|NULL|NULL\nNULL|0|7|''|NULL|''\n");
}

TEST_F(SqlMappingTest, ListsRunOneStatementForAllChildren) {
    CIPs ips;  // empty: nothing is prepared, so a missing table does not matter
    wxSQLite3Database none;
    none.Open(wxString::FromUTF8(dir_ / "empty.db"));
    EXPECT_EQ(ips.SQLInsert(none) + ips.SQLUpdate(none) + ips.SQLDelete(none), 0);

    for (const char* address : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) {
        ips.AddChild(new CIP);
        Ip(ips.Children().back())->ipAddress = wxString::FromUTF8(address);
        ips.Children().back()->SetAttributeNull(&Ip(ips.Children().back())->ipAddress, false);
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
    EXPECT_EQ(Tool("select max(id) from IPs;"), "4294967302\n");
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
    EXPECT_EQ(digest("g = 'b'", "'sha512'"), shell("42", "sha512sum"));
    // An empty group never saw a name: the digest of nothing, by sha1.
    EXPECT_EQ(digest("0", "'sha256'"), shell("", "sha1sum"));
    EXPECT_EQ(query("select group_concat(hex(d)) from (select g, digest(v, 'sha1') d from words"
                    " where n in (1, 3) group by g order by g);"),
              shell("alpha", "sha1sum") + "," + shell("", "sha1sum"));
}

}  // namespace
