// Every callable a script can reach, called with every kind of wrong argument:
// the process must survive each call, and each failure must reach the script
// as a Lua error that pcall catches.
//
// The list of callables is read from the binder's registry (what --api-doc
// prints) and the module table, so a new binding is walked without a change
// here; only a new class needs a way to make an instance (binder_walk.lua).
#include <gtest/gtest.h>
#include <unistd.h>
#include <wx/debug.h>

#include <cstdlib>
#include <filesystem>
#include <lua.hpp>
#include <set>
#include <string>
#include <vector>

#include "core/lua/LuaInterpreter.h"
#include "core/runtime/vesk_core.h"
#include "slb/ClassInfo.h"
#include "slb/FuncCall.h"
#include "slb/Manager.h"
#include "tests/support/CapturingLog.h"

namespace fs = std::filesystem;

// A count no memory can hold (stream:Read(2^63)) is refused by malloc, which
// Lua turns into its memory error; AddressSanitizer would end the process
// first. Read only by sanitized builds.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

struct Callable {
    std::string path;   // as a script writes it: "wx.RemoveFile", "App.ServiceStart"
    std::string kind;   // function, constructor, method, raw
    int arity = -1;     // -1: a Lua C function, which takes any count
    std::string owner;  // the class of a method or constructor
};

const char* KindOf(const SLB::FuncCall& call) {
    switch (call.getKind()) {
        case SLB::FuncCall::Kind::Method:
        case SLB::FuncCall::Kind::ConstMethod:
            return "method";
        case SLB::FuncCall::Kind::Constructor:
            return "constructor";
        case SLB::FuncCall::Kind::Raw:
            return "raw";
        default:
            return "function";
    }
}

int ArityOf(const SLB::FuncCall& call) {
    return call.getKind() == SLB::FuncCall::Kind::Raw ? -1
                                                      : static_cast<int>(call.getNumArguments());
}

void Collect(const SLB::Table& table, const std::string& prefix, const std::string& owner,
             std::vector<Callable>& out) {
    for (const auto& [name, object] : table.getElements()) {
        const std::string path = prefix + std::string(name.data(), name.size());
        if (const auto* cls = dynamic_cast<const SLB::ClassInfo*>(object)) {
            if (const SLB::FuncCall* constructor = cls->getConstructor())
                out.push_back({path, "constructor", ArityOf(*constructor), path});
            Collect(*cls, path + ".", path, out);
        } else if (const auto* nested = dynamic_cast<const SLB::Table*>(object)) {
            Collect(*nested, path + ".", owner, out);
        } else if (const auto* call = dynamic_cast<const SLB::FuncCall*>(object)) {
            // A Lua C function in a class is called as a method too.
            const bool member = !owner.empty() && call->getKind() != SLB::FuncCall::Kind::Function;
            out.push_back({path, member ? std::string("method") : KindOf(*call), ArityOf(*call),
                           member ? owner : std::string()});
        }
    }
}

// wx's assertions print a text and a call stack and go on: for the walk they
// are failures like any other.
std::vector<std::string> s_Assertions;
void RecordAssertion(const wxString& file, int line, const wxString&, const wxString& cond,
                     const wxString& msg) {
    s_Assertions.push_back(file.utf8_string() + ":" + std::to_string(line) + ": " +
                           cond.utf8_string() + " " + msg.utf8_string());
}

class BinderWalk : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(VeskCore_Init(), 1);
        home = fs::current_path();
        // Every relative path a call makes lands here: the walk runs as root in CI.
        std::string pattern = ::testing::TempDir() + "vesk-walk-XXXXXX";
        ASSERT_NE(mkdtemp(&pattern[0]), nullptr);
        scratch = pattern;
        fs::current_path(scratch);
        previousHandler = wxSetAssertHandler(&RecordAssertion);
    }
    void TearDown() override {
        wxSetAssertHandler(previousHandler);
        fs::current_path(home);
        fs::remove_all(scratch);
    }

    fs::path home, scratch;
    wxAssertHandler_t previousHandler = nullptr;
};

TEST_F(BinderWalk, EveryCallableSurvivesEveryWrongArgument) {
    std::vector<Callable> callables;
    Collect(SLB::Manager::defaultManager()->getRoot(), "", "", callables);
    ASSERT_GT(callables.size(), 50u);

    VeskTest::CapturingLog log;  // the walk logs much; none of it is for the reader
    {
        VeskCore::CLuaInterpreter lua(false, nullptr, true);
        lua_State* L = lua.L();
        lua_createtable(L, static_cast<int>(callables.size()), 0);
        for (size_t i = 0; i < callables.size(); ++i) {
            lua_createtable(L, 0, 4);
            lua_pushstring(L, callables[i].path.c_str());
            lua_setfield(L, -2, "path");
            lua_pushstring(L, callables[i].kind.c_str());
            lua_setfield(L, -2, "kind");
            lua_pushinteger(L, callables[i].arity);
            lua_setfield(L, -2, "arity");
            lua_pushstring(L, callables[i].owner.c_str());
            lua_setfield(L, -2, "owner");
            lua_rawseti(L, -2, static_cast<int>(i + 1));
        }
        lua_setglobal(L, "callables");
        lua_pushlightuserdata(L, &callables);
        lua_setglobal(L, "lightUserdata");
        // The module of this very binary: a loaded .so would be a second library.
        lua_getglobal(L, "package");
        lua_getfield(L, -1, "preload");
        lua_pushcfunction(L, luaopen_vesk_core);
        lua_setfield(L, -2, "vesk_core");
        lua_pop(L, 2);

        const char* data = std::getenv("VESK_TEST_DATA");
        ASSERT_NE(data, nullptr);
        lua.SetPackagePaths(std::string(data), std::string(data) + "/?.lua", "", "");
        const int status =
            lua.RunScript(wxS("return require('binder_walk')"), 0, 1, wxS("walk"), nullptr);
        ASSERT_EQ(status, 0) << lua.GetErrorInfo();
        ASSERT_TRUE(lua_isstring(L, -1));
        const std::string report = lua_tostring(L, -1);
        std::cout << report << "\n";
        EXPECT_EQ(report.find("FAIL"), std::string::npos) << report;
        lua_pop(L, 1);
    }
    std::set<std::string> distinct(s_Assertions.begin(), s_Assertions.end());
    for (const std::string& assertion : distinct)
        ADD_FAILURE() << "wx assertion: " << assertion;
}

}  // namespace
