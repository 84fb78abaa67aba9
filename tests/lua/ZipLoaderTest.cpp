#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <lua.hpp>
#include <string>
#include <utility>

#include "core/lua/LuaInterpreter.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/Tools.h"

using namespace ::testing;
namespace fs = std::filesystem;

namespace {

// Packing commands, run in the folder of the sources: {a} the archive's
// path, {e} the entries in the order they are to be stored.
const std::string kPackers[] = {
    "zip -q -X -0 {a} {e}",
    "zip -q -X -9 {a} {e}",
    "python3 -c 'import sys, zipfile as z; a = z.ZipFile(sys.argv[1], \"w\", 8); "
    "a.comment = b\"with a comment\"; [a.write(n) for n in sys.argv[2:]]; a.close()' {a} {e}",
    "zip -q -X -9 -fz {a} {e}",                 // zip64 end records and extra fields
    "zip -q -X -9 - {e} | cat > {a}",           // to a pipe: sizes and CRC after the data
    "cmake -E tar cf {a} --format=zip -- {e}",  // libarchive, as the build packs its own
};
const std::string& kStore = kPackers[0];
const std::string& kDeflate = kPackers[1];

// A one-entry archive's bytes, to damage in place.
struct Archive {
    explicit Archive(const std::string& file) : path(file) {
        std::ifstream in(path, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        central = Get(bytes.rfind(std::string("PK\5\6", 4)) + 16, 4);
    }
    uint64_t Get(size_t at, int count) const {
        uint64_t value = 0;
        for (int i = count - 1; i >= 0; --i)
            value = value << 8 | static_cast<unsigned char>(bytes.at(at + i));
        return value;
    }
    void Set(size_t at, int count, uint64_t value) {
        for (int i = 0; i < count; ++i, value >>= 8)
            bytes.at(at + i) = static_cast<char>(value & 0xFF);
    }
    // A field of the local header, and the same field of the central record,
    // which has it 2 bytes further on.
    void SetBoth(size_t local, int count, uint64_t value) {
        Set(local, count, value);
        Set(central + local + 2, count, value);
    }
    size_t Data() const { return 30 + Get(26, 2) + Get(28, 2); }
    void Save() const { std::ofstream(path, std::ios::binary) << bytes; }

    std::string path, bytes;
    size_t central = 0;
};

struct ZipSearch : ::testing::Test {
    void SetUp() override {
        // The long comment takes more than one read of the loader's buffer.
        Put("big.lua", "-- " + std::string(40000, '-') + "\nreturn 'big'");
        for (std::string file : {"m/file.lua", "m/pkg/init.lua", "o/x.lua", "o/x/init.lua"})
            Put(file, "return '" + file + "'");
        // Long enough that zip deflates it rather than storing it.
        Put("d/m.lua", "-- " + std::string(300, 'x') + "\nreturn 'original'");
    }

    void Put(const std::string& file, const std::string& text) {
        fs::create_directories(fs::path(dir + "/src/" + file).parent_path());
        std::ofstream(dir + "/src/" + file, std::ios::binary) << text;
    }
    std::string Pack(std::string command, const std::string& name, const std::string& entries) {
        const std::string path = dir + "/" + name + ".zip";
        command.replace(command.find("{a}"), 3, path);
        command.replace(command.find("{e}"), 3, entries);
        command = "cd " + dir + "/src && " + command;
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
        return path;
    }
    // require in a fresh state searching `list`, then `more`: the module's value or the error.
    std::string Require(std::string list, std::string module, std::string more = "") {
        VeskCore::CLuaInterpreter lua(false, nullptr, false);
        lua.SetPackagePaths(dir, "", "", list);
        lua.SetPackagePaths(dir, "", "", more);
        luaL_dostring(lua.L(), ("return tostring(require('" + module + "'))").c_str());
        return lua_tostring(lua.L(), -1);
    }
    static std::string NotIn(const std::string& archive, const std::string& base = "no/such") {
        return "\n\tno '" + base + ".lua' or '" + base + "/init.lua' in file '" + archive + "'";
    }
    // A regular file that exists but cannot be opened for reading: one of our
    // own where file modes bind, else a write-only sysfs attribute (root
    // ignores modes). Empty when there is neither.
    std::string Unopenable() {
        const std::string own = dir + "/unopenable.zip";
        std::ofstream(own) << "PK";
        fs::permissions(own, fs::perms::none);
        for (const std::string& file : {own, std::string("/sys/bus/platform/uevent")}) {
            if (!fs::is_regular_file(file))
                continue;
            FILE* opened = fopen(file.c_str(), "rb");
            if (opened == nullptr)
                return file;
            fclose(opened);
        }
        return "";
    }

    VeskTest::ScratchDir scratch;
    const std::string dir = scratch.path();
};

TEST_F(ZipSearch, LoadsModulesFromArchivesOfEveryTool) {
    VESK_SKIP_WITHOUT_TOOLS("zip", "python3", "cmake");
    int n = 0;
    for (const std::string& packer : kPackers) {
        SCOPED_TRACE(packer);
        const std::string tag = std::to_string(n++);
        const std::string all = Pack(packer, "all" + tag, "m/file.lua big.lua m/pkg/init.lua");
        EXPECT_EQ(Require(all, "m.file"), "m/file.lua");
        EXPECT_EQ(Require(all, "m.pkg"), "m/pkg/init.lua");
        EXPECT_EQ(Require(all, "big"), "big");  // read to the entry's end, not beyond
        // Both forms of a module in one archive: archive order decides, not the form.
        EXPECT_EQ(Require(Pack(packer, "i" + tag, "o/x/init.lua o/x.lua"), "o.x"), "o/x/init.lua");
        EXPECT_EQ(Require(Pack(packer, "f" + tag, "o/x.lua o/x/init.lua"), "o.x"), "o/x.lua");
        // Data in front of the archive, as a self-extractor has, with offsets left as they were.
        const std::string front = dir + "/front" + tag + ".zip";
        std::ofstream(front, std::ios::binary) << std::string(1000, '#') << Archive(all).bytes;
        EXPECT_EQ(Require(front, "m.pkg"), "m/pkg/init.lua");
    }
}

TEST_F(ZipSearch, FailureTextNamesEachArchive) {
    VESK_SKIP_WITHOUT_TOOLS("zip");
    const std::string good = Pack(kStore, "good", "m/file.lua");
    const std::string junk = dir + "/junk.zip", none = dir + "/none.zip";
    std::ofstream(junk) << std::string(5000, 'P') << "PK\x03\x04 not really an archive";
    EXPECT_THAT(Require(good + ";" + none + ";" + junk, "no.such"),
                EndsWith(NotIn(good) + "\n\tno file '" + none + "'" + NotIn(junk)));
    // An empty part is a file that is not there; a trailing ";" makes no part.
    EXPECT_THAT(Require(good + ";;", "no.such"), EndsWith(NotIn(good) + "\n\tno file ''"));
}

// Fields of a local header.
constexpr size_t kMethod = 8, kCrc = 14, kPacked = 18, kSize = 22, kNameLength = 26;

TEST_F(ZipSearch, DamagedEntriesRaiseAnErrorNamingArchiveAndEntry) {
    VESK_SKIP_WITHOUT_TOOLS("zip");
    struct Case {
        const char* what;
        std::string packer;
        std::function<void(Archive&)> damage;
        const char* fault;
    };
    const Case cases[] = {
        {"stored bytes changed", kStore,
         [](Archive& a) { a.bytes.replace(a.bytes.find("original"), 8, "tampered"); },
         "CRC-32 mismatch"},
        {"directory's CRC changed", kDeflate,
         [](Archive& a) { a.Set(a.central + kCrc + 2, 4, a.Get(a.central + kCrc + 2, 4) ^ 1); },
         "CRC-32 mismatch"},
        {"deflate stream cut short", kDeflate,
         [](Archive& a) { a.SetBoth(kPacked, 4, a.Get(kPacked, 4) / 2); },
         "compressed data ends early"},
        {"deflate stream garbled", kDeflate,
         [](Archive& a) { a.bytes[a.Data()] = '\xFF'; },  // block type 3 does not exist
         "corrupt deflate data"},
        {"declared length one short", kDeflate,
         [](Archive& a) { a.SetBoth(kSize, 4, a.Get(kSize, 4) - 1); },
         "length differs from the central directory"},
        {"declared length one long", kStore,
         [](Archive& a) { a.SetBoth(kSize, 4, a.Get(kSize, 4) + 1); },
         "length differs from the central directory"},
        {"compressed size past the end", kStore,
         [](Archive& a) { a.SetBoth(kPacked, 4, a.bytes.size()); },
         "entry runs past the end of the archive"},
        {"local name length", kDeflate,
         [](Archive& a) { a.Set(kNameLength, 2, a.Get(kNameLength, 2) + 1); }, "bad local header"},
        {"local header offset", kDeflate, [](Archive& a) { a.Set(a.central + 42, 4, 1); },
         "bad local header"},
        {"bzip2", kStore, [](Archive& a) { a.SetBoth(kMethod, 2, 12); },
         "unsupported compression method 12"},
        {"encrypted by zip", "zip -q -X -0 -P secret {a} {e}", [](Archive&) {}, "encrypted entry"},
    };
    int row = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Archive archive(Pack(c.packer, "damaged" + std::to_string(row++), "d/m.lua"));
        const bool stored = c.packer.find(" -0 ") != std::string::npos;
        ASSERT_EQ(archive.Get(kMethod, 2), stored ? 0u : 8u);
        c.damage(archive);
        archive.Save();
        EXPECT_EQ(Require(archive.path, "d.m"), archive.path + ":d/m.lua: " + c.fault);
    }
}

// A damaged entry counts as a module that does not compile: later archives of
// the same list are searched, later registrations are not, and each failure
// replaces the one before it, whichever kind either is.
TEST_F(ZipSearch, BrokenOrDamagedModulesEndTheSearchOnlyAtTheEndOfTheirList) {
    VESK_SKIP_WITHOUT_TOOLS("zip");
    Archive damaged(Pack(kStore, "damaged", "d/m.lua"));
    damaged.bytes.replace(damaged.bytes.find("original"), 8, "tampered");
    damaged.Save();
    const std::string good = Pack(kDeflate, "good", "d/m.lua");
    const std::string first = Pack(kDeflate, "first", "m/file.lua");
    Put("d/m.lua", "return (");
    const std::string broken = Pack(kStore, "broken", "d/m.lua");
    const std::string fault = damaged.path + ":d/m.lua: CRC-32 mismatch";
    const std::string syntax = "[string \"" + broken + ":d/m.lua\"]:1:";
    for (const std::string& bad : {damaged.path, broken})
        EXPECT_EQ(Require(bad + ";" + good, "d.m"), "original") << bad;
    EXPECT_EQ(Require(damaged.path, "d.m", good), fault);
    EXPECT_EQ(Require(first + ";" + damaged.path + ";" + first, "d.m"), fault);
    // Raised with a line of failure text already gathered (a leak once).
    EXPECT_THAT(Require("none;" + broken, "d.m"), StartsWith(syntax));
    EXPECT_EQ(Require(broken + ";" + damaged.path, "d.m"), fault);
    EXPECT_THAT(Require(damaged.path + ";" + broken, "d.m"), StartsWith(syntax));
    std::string many;
    for (int i = 0; i < 60; ++i)
        many += (i % 2 ? broken : damaged.path) + ";";
    EXPECT_EQ(Require(many + good, "d.m"), "original");
    EXPECT_EQ(Require(first, "m.file", good), "m/file.lua");
    EXPECT_EQ(Require(first, "d.m", good), "original");
    EXPECT_THAT(Require(first, "no.such", good), EndsWith(NotIn(first) + NotIn(good)));

    // An archive that exists but cannot be opened ends the search, unless a module broke.
    const std::string unopenable = Unopenable();
    if (unopenable.empty())
        GTEST_SKIP() << "needs /sys, or a user bound by file modes, for an unopenable file";
    const std::string none = dir + "/none.zip";
    EXPECT_THAT(Require(none + ";" + unopenable + ";" + first, "m.file"),
                EndsWith("\n\tno file '" + none + "'\n\terror opening file '" + unopenable + "'"));
    EXPECT_EQ(Require(broken + ";" + unopenable + ";" + good, "d.m"), "original");
}

TEST_F(ZipSearch, NamesOutsideTheArchiveRootAreNoModules) {
    VESK_SKIP_WITHOUT_TOOLS("zip");
    Put("ok/y.lua", "return 'y'");
    // Packed under stand-in names of the same length, renamed in place.
    const std::pair<std::string, std::string> renames[] = {{"Xabs/x.lua", "/abs/x.lua"},
                                                           {"XX/up.lua", "../up.lua"},
                                                           {"m/XX/in.lua", "m/../in.lua"},
                                                           {"X/dot.lua", "./dot.lua"},
                                                           {"eX/e.lua", "e//e.lua"}};
    std::string entries;
    for (const auto& rename : renames) {
        Put(rename.first, "return 'escaped'");
        entries += rename.first + " ";
    }
    Archive archive(Pack(kStore, "names", entries + "ok/y.lua"));
    for (const auto& rename : renames) {
        for (size_t at = 0; (at = archive.bytes.find(rename.first, at)) != std::string::npos;)
            archive.bytes.replace(at, rename.first.size(), rename.second);
    }
    archive.Save();
    EXPECT_EQ(Require(archive.path, "ok.y"), "y");
    // What wx or an unpacker would make of the names, and the names verbatim.
    for (const std::string module : {"abs.x", ".abs.x", "up", "in", "dot", "e.e", "e..e"}) {
        SCOPED_TRACE(module);
        std::string base = module;
        std::replace(base.begin(), base.end(), '.', '/');
        EXPECT_THAT(Require(archive.path, module), EndsWith(NotIn(archive.path, base)));
    }
}

TEST_F(ZipSearch, ModulesAreCappedAt16MiB) {
    VESK_SKIP_WITHOUT_TOOLS("zip");
    for (const std::string name : {"under", "over"}) {
        const std::string head = "return '" + name + "'\n--";
        const size_t size = (16u << 20) + (name == "over");
        Put("cap/" + name + ".lua", head + std::string(size - head.size(), ' '));
    }
    const std::string archive = Pack(kDeflate, "cap", "cap/under.lua cap/over.lua");
    EXPECT_EQ(Require(archive, "cap.under"), "under");
    EXPECT_EQ(Require(archive, "cap.over"),
              archive + ":cap/over.lua: larger than the 16 MiB a module may have");
}

}  // namespace
