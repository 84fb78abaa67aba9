#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <lua.hpp>
#include <string>

#include "core/lua/LuaInterpreter.h"

using namespace ::testing;
namespace fs = std::filesystem;

namespace {

#define VESK_PYZIP                                                                                \
    "python3 -c 'import sys, zipfile as z; a = z.ZipFile(sys.argv[2], \"w\", int(sys.argv[1])); " \
    "[a.write(n) for n in sys.argv[3:]]; a.close()' "
// Each takes the archive's path, then the entries in the order they are to be stored.
const char* const kPackers[] = {"zip -q -X -0 ", "zip -q -X -9 ", VESK_PYZIP "0 ", VESK_PYZIP "8 "};
// A write-only sysfs attribute: a regular file that not even root can open for reading.
const std::string kUnreadable = "/sys/bus/platform/uevent";

struct ZipSearch : ::testing::Test {
    void SetUp() override {
        char name[] = "/tmp/vzXXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
        // The long comment takes more than one read of the loader's buffer.
        Put("big.lua", "-- " + std::string(40000, '-') + "\nreturn 'big'");
        for (std::string file : {"m/file.lua", "m/pkg/init.lua", "o/x.lua", "o/x/init.lua"})
            Put(file, "return '" + file + "'");
    }
    void TearDown() override { fs::remove_all(dir); }

    void Put(const std::string& file, const std::string& text) {
        fs::create_directories(fs::path(dir + "/src/" + file).parent_path());
        std::ofstream(dir + "/src/" + file) << text;
    }
    // Returns the archive's path, which names the packer.
    std::string Pack(int packer, const std::string& name, const std::string& entries) {
        const std::string path = dir + "/" + name + std::to_string(packer) + ".zip";
        const std::string cmd = "cd " + dir + "/src && " + kPackers[packer] + path + " " + entries;
        EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
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
    static std::string NotIn(const std::string& archive) {
        return "\n\tno 'no/such.lua' or 'no/such/init.lua' in file '" + archive + "'";
    }

    std::string dir;
};

TEST_F(ZipSearch, LoadsModulesFromArchivesOfEveryTool) {
    for (int packer = 0; packer < 4; ++packer) {
        SCOPED_TRACE(kPackers[packer]);
        const std::string all = Pack(packer, "all", "m/file.lua big.lua m/pkg/init.lua");
        EXPECT_EQ(Require(all, "m.file"), "m/file.lua");
        EXPECT_EQ(Require(all, "m.pkg"), "m/pkg/init.lua");
        EXPECT_EQ(Require(all, "big"), "big");  // read to the entry's end, not beyond
        // Both forms of a module in one archive: archive order decides, not the form.
        EXPECT_EQ(Require(Pack(packer, "i", "o/x/init.lua o/x.lua"), "o.x"), "o/x/init.lua");
        EXPECT_EQ(Require(Pack(packer, "f", "o/x.lua o/x/init.lua"), "o.x"), "o/x.lua");
    }
}

TEST_F(ZipSearch, FailureTextNamesEachArchiveUntilOneCannotBeOpened) {
    const std::string good = Pack(0, "good", "m/file.lua");
    const std::string junk = dir + "/junk.zip", none = dir + "/none.zip";
    std::ofstream(junk) << std::string(5000, 'P') << "PK\x03\x04 not really an archive";
    EXPECT_THAT(Require(good + ";" + none + ";" + junk, "no.such"),
                EndsWith(NotIn(good) + "\n\tno file '" + none + "'" + NotIn(junk)));
    ASSERT_TRUE(fs::is_regular_file(kUnreadable)) << "needs sysfs";
    EXPECT_THAT(Require(none + ";" + kUnreadable + ";" + good, "m.file"),
                EndsWith("\n\tno file '" + none + "'\n\terror opening file '" + kUnreadable + "'"));
    // An empty part is a file that is not there; a trailing ";" makes no part.
    EXPECT_THAT(Require(good + ";;", "no.such"), EndsWith(NotIn(good) + "\n\tno file ''"));
}

TEST_F(ZipSearch, LaterArchivesAndLaterRegistrationsAreSearchedInTurn) {
    Put("s/y.lua", "return (");
    const std::string bad = Pack(2, "br", "s/y.lua");
    Put("s/y.lua", "return 'repaired'");
    const std::string fixed = Pack(3, "ok", "s/y.lua");
    EXPECT_EQ(Require(bad + ";" + fixed, "s.y"), "repaired");
    // Raised with a line of failure text already gathered (a leak once).
    EXPECT_THAT(Require("none;" + bad, "s.y"), StartsWith("[string \"" + bad + ":s/y.lua\"]:1:"));
    // After a broken module, an archive that cannot be opened no longer ends the search.
    EXPECT_EQ(Require(bad + ";" + kUnreadable + ";" + fixed, "s.y"), "repaired");
    const std::string first = Pack(1, "first", "m/file.lua");
    EXPECT_EQ(Require(first, "m.file", fixed), "m/file.lua");
    EXPECT_EQ(Require(first, "s.y", fixed), "repaired");
    EXPECT_THAT(Require(first, "no.such", fixed), EndsWith(NotIn(first) + NotIn(fixed)));
}

}  // namespace
