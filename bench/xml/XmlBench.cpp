// The object model against the libraries beneath it: reading a 10 MiB list
// document against Expat with empty handlers on the same bytes, writing the
// same tree, and inserting 100 000 records in one transaction against
// prepared sqlite3_step inserts of the same values.
#include <benchmark/benchmark.h>
#include <expat.h>
#include <unistd.h>
#include <wx/mstream.h>
#include <wx/stream.h>
#include <wx/wxsqlite3.h>
// After wxSQLite3, whose enumerators share the names of SQLite's macros.
#include <sqlite3.h>

#include <cstdio>
#include <string>

#include "bench/support/RatioMain.h"
#include "core/xml/IdNameDescObject.h"
#include "core/xml/XMLObjectList.h"

namespace {

using namespace VeskCore;

constexpr int kRecords = 100000;

class Item : public CIdNameDescObject {
  public:
    Item() {
        AddAttribute("port", &port, 0, false);
        AddAttribute("bytes", &bytes, 0, false);
        AddAttribute("enabled", &enabled, false);
    }
    wxString GetElementName() const override { return wxS("Item"); }
    int port = 0;
    long long bytes = 0;
    bool enabled = false;
};

class Items : public XMLObjectList {
  public:
    Items() : XMLObjectList(true, false) {}
    wxString GetElementName() const override { return wxS("Items"); }
    wxString ChildElementName() const override { return wxS("Item"); }
    XMLObject* CreateListElement() const override { return new Item; }
};

// The records as the manager would send them: no ids, so an insert reads
// each new row id back. No value equals its default, so writing the records
// gives the document back byte for byte: about 10 MiB.
const std::string& Document() {
    static const std::string document = [] {
        std::string text = "<Items>\n";
        char line[256];
        for (int i = 0; i < kRecords; ++i) {
            snprintf(line, sizeof line,
                     "\t<Item name=\"svc-%d\" description=\"daemon %d &amp; co\" port=\"%d\" "
                     "bytes=\"%lld\" enabled=\"true\" />\n",
                     i, i, 1 + i % 65535, 1000000007LL * (i + 1));
            text += line;
        }
        return text + "</Items>\n";
    }();
    return document;
}

Items& ParsedItems() {
    static Items* items = [] {
        auto* parsed = new Items;
        wxMemoryInputStream input(Document().data(), Document().size());
        parsed->FromXML(input, nullptr);
        return parsed;
    }();
    return *items;
}

void BM_FromXml(benchmark::State& state) {
    for (auto _ : state) {
        Items items;
        wxMemoryInputStream input(Document().data(), Document().size());
        if (items.FromXML(input, nullptr) != 0 || items.Children().size() != kRecords)
            state.SkipWithError("the document did not read back");
    }
    state.SetBytesProcessed(state.iterations() * Document().size());
}
BENCHMARK(BM_FromXml)->Unit(benchmark::kMillisecond);

void EmptyStart(void*, const XML_Char*, const XML_Char**) {}
void EmptyEnd(void*, const XML_Char*) {}
void EmptyText(void*, const XML_Char*, int) {}

void BM_RawExpat(benchmark::State& state) {
    for (auto _ : state) {
        XML_Parser parser = XML_ParserCreate(nullptr);
        XML_SetElementHandler(parser, EmptyStart, EmptyEnd);
        XML_SetCharacterDataHandler(parser, EmptyText);
        if (XML_Parse(parser, Document().data(), static_cast<int>(Document().size()), 1) !=
            XML_STATUS_OK)
            state.SkipWithError("expat refused the document");
        XML_ParserFree(parser);
    }
    state.SetBytesProcessed(state.iterations() * Document().size());
}
BENCHMARK(BM_RawExpat)->Unit(benchmark::kMillisecond);

void BM_ToXml(benchmark::State& state) {
    Items& items = ParsedItems();
    size_t written = 0;
    for (auto _ : state) {
        wxCountingOutputStream out;  // keeps nothing of what it counts
        items.ToXML(out, 0);
        written = static_cast<size_t>(out.GetLength());
    }
    if (written != Document().size())
        state.SkipWithError("the written document differs in size from the one read");
    state.SetBytesProcessed(state.iterations() * written);
}
BENCHMARK(BM_ToXml)->Unit(benchmark::kMillisecond);

const char kCreate[] =
    "CREATE TABLE Items (id INTEGER PRIMARY KEY, name TEXT, description TEXT, port INTEGER, "
    "bytes INTEGER, enabled INTEGER)";

std::string ScratchDatabase(const char* name) {
    const std::string path = "/tmp/vesk-bench-" + std::to_string(getpid()) + "-" + name;
    unlink(path.c_str());
    return path;
}

void BM_SqlInsert(benchmark::State& state) {
    Items& items = ParsedItems();
    const std::string path = ScratchDatabase("records.db");
    wxSQLite3Database db;
    db.Open(wxString::FromUTF8(path));
    db.ExecuteUpdate(kCreate);
    for (auto _ : state) {
        db.Begin();
        const int inserted = items.SQLInsert(db);
        db.Commit();
        state.PauseTiming();
        if (inserted != kRecords)
            state.SkipWithError("not every record was inserted");
        db.ExecuteUpdate("DELETE FROM Items");
        state.ResumeTiming();
    }
    db.Close();
    unlink(path.c_str());
}
BENCHMARK(BM_SqlInsert)->Unit(benchmark::kMillisecond);

// The same values through wxSQLite3 by hand: what the wrapper and wide
// strings cost before any record is involved.
void BM_WxSqlite3Insert(benchmark::State& state) {
    const std::string path = ScratchDatabase("wx.db");
    wxSQLite3Database db;
    db.Open(wxString::FromUTF8(path));
    db.ExecuteUpdate(kCreate);
    for (auto _ : state) {
        db.Begin();
        wxSQLite3Statement insert = db.PrepareStatement(
            "INSERT INTO Items (id, name, description, port, bytes, enabled) "
            "VALUES (?, ?, ?, ?, ?, ?)");
        for (const XMLObject* child : ParsedItems().Children()) {
            const auto* item = static_cast<const Item*>(child);
            insert.BindNull(1);
            insert.Bind(2, item->name);
            insert.Bind(3, item->description);
            insert.Bind(4, item->port);
            insert.Bind(5, wxLongLong(item->bytes));
            insert.BindBool(6, item->enabled);
            insert.ExecuteUpdate();
            benchmark::DoNotOptimize(db.GetLastRowId());
        }
        db.Commit();
        state.PauseTiming();
        db.ExecuteUpdate("DELETE FROM Items");
        state.ResumeTiming();
    }
    db.Close();
    unlink(path.c_str());
}
BENCHMARK(BM_WxSqlite3Insert)->Unit(benchmark::kMillisecond);

// The same values, bound from plain memory in the loop.
struct Row {
    std::string name;
    std::string description;
    int port;
    long long bytes;
};

void BM_RawSqliteInsert(benchmark::State& state) {
    std::vector<Row> rows;
    for (const XMLObject* child : ParsedItems().Children()) {
        const auto* item = static_cast<const Item*>(child);
        rows.push_back(
            {item->name.utf8_string(), item->description.utf8_string(), item->port, item->bytes});
    }
    const std::string path = ScratchDatabase("raw.db");
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_exec(db, kCreate, nullptr, nullptr, nullptr);
    for (auto _ : state) {
        sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
        sqlite3_stmt* insert = nullptr;
        sqlite3_prepare_v2(db,
                           "INSERT INTO Items (id, name, description, port, bytes, enabled) "
                           "VALUES (?, ?, ?, ?, ?, ?)",
                           -1, &insert, nullptr);
        long long lastId = 0;
        for (const Row& row : rows) {
            sqlite3_bind_null(insert, 1);
            sqlite3_bind_text(insert, 2, row.name.data(), static_cast<int>(row.name.size()),
                              SQLITE_STATIC);
            sqlite3_bind_text(insert, 3, row.description.data(),
                              static_cast<int>(row.description.size()), SQLITE_STATIC);
            sqlite3_bind_int(insert, 4, row.port);
            sqlite3_bind_int64(insert, 5, row.bytes);
            sqlite3_bind_int(insert, 6, 1);
            if (sqlite3_step(insert) != SQLITE_DONE)
                state.SkipWithError(sqlite3_errmsg(db));
            lastId = sqlite3_last_insert_rowid(db);
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
        sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
        benchmark::DoNotOptimize(lastId);
        state.PauseTiming();
        sqlite3_exec(db, "DELETE FROM Items", nullptr, nullptr, nullptr);
        state.ResumeTiming();
    }
    sqlite3_close(db);
    unlink(path.c_str());
}
BENCHMARK(BM_RawSqliteInsert)->Unit(benchmark::kMillisecond);

}  // namespace

VESK_BENCH_SPEED(BM_FromXml, BM_RawExpat, 0.4);
VESK_BENCH_SPEED(BM_SqlInsert, BM_RawSqliteInsert, 0.6);
VESK_BENCH_SPEED(BM_WxSqlite3Insert, BM_RawSqliteInsert, 0.6);
VESK_BENCH_MAIN();
