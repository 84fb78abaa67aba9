#include <gtest/gtest.h>
#include <wx/thread.h>

#include <lua.hpp>
#include <random>
#include <string>
#include <thread>

#include "core/api/TraceLua.h"
#include "core/runtime/LogTrace.h"
#include "core/runtime/vesk_core.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;
using VeskTest::CapturingLog;

namespace {

class LogTraceTest : public ::testing::Test {
  protected:
    void SetUp() override { TraceMasksSet(""); }
    void TearDown() override { TraceMasksSet(""); }

    std::vector<std::string> Messages() const { return log.Texts(wxLOG_Message); }

    CapturingLog log;
};

TEST_F(LogTraceTest, LineIsBracketedMaskBlankTextAtMessageLevel) {
    TraceMasksSet("App");
    LogTrace("App", "%d items in %s", 3, "list");
    LogTrace(TraceCmd, "command %s", "ran");  // not enabled: "Cmd" is no entry
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(log.Lines()[0].level, wxLOG_Message);
    EXPECT_EQ(log.Lines()[0].text, "[App] 3 items in list");
}

// Wildcards themselves are compared with wx's matcher below.
TEST_F(LogTraceTest, AnyEntryMayMatchNonAsciiOnesTooButANullMaskNever) {
    TraceMasksSet("SSL*,H?TP");
    EXPECT_TRUE(LogTraceIsEnabled("SSLMsg"));
    EXPECT_TRUE(LogTraceIsEnabled(wxString::FromUTF8("HTTP")));
    EXPECT_FALSE(LogTraceIsEnabled(static_cast<const char*>(nullptr)));
    // Non-ASCII masks take the wxString path and still match.
    TraceMasksSet("Zürich*");
    EXPECT_TRUE(LogTraceIsEnabled("Zürich.verbose"));
    EXPECT_FALSE(LogTraceIsEnabled("Zurich.verbose"));
}

// Masks written for wx's own matcher must select the same threads here, quirks
// and all, on both the ASCII and the wxString path.
TEST_F(LogTraceTest, WildcardsFollowWxMatchesExactly) {
    std::mt19937 random(2026);
    const char alphabet[] = "ab*?";
    auto draw = [&](size_t maxLength, size_t letters) {
        std::string text(random() % (maxLength + 1), 'a');
        for (char& c : text)
            c = alphabet[random() % letters];
        return text;
    };
    for (int round = 0; round < 20000; ++round) {
        const std::string pattern = draw(6, 4);
        const std::string subject = draw(7, 2);
        if (pattern.empty())
            continue;  // an empty setting clears the list
        TraceMasksSet(pattern);
        const bool expected = wxString::FromUTF8(subject).Matches(wxString::FromUTF8(pattern));
        ASSERT_EQ(LogTraceIsEnabled(subject.c_str()), expected) << subject << " ~ " << pattern;
        ASSERT_EQ(LogTraceIsEnabled(wxString::FromUTF8(subject + "\xC3\xA9")),
                  wxString::FromUTF8(subject + "\xC3\xA9").Matches(wxString::FromUTF8(pattern)))
            << subject << "\xC3\xA9 ~ " << pattern;
    }
}

TEST_F(LogTraceTest, LoneStarEnablesTheEmptyMaskWithEmptyBrackets) {
    TraceMasksSet("*");
    LogTrace(static_cast<const char*>(nullptr), "null mask");
    LogTrace("", "empty mask");
    LogTrace(TraceNone, "no subsystem");
    LogTrace(TraceCmd, "cmd");
    EXPECT_EQ(Messages(), (std::vector<std::string>{"[] null mask", "[] empty mask",
                                                    "[] no subsystem", "[Cmd] cmd"}));
}

TEST_F(LogTraceTest, LongTextIsCutToTheLineBuffer) {
    TraceMasksSet("App,m*");
    auto only = [&] {  // the one line logged since the last call
        const std::vector<std::string> lines = Messages();
        log.Clear();
        EXPECT_EQ(lines.size(), 1u);
        return lines.empty() ? std::string() : lines[0];
    };
    LogTrace("App", "%s", std::string(5000, 'x').c_str());
    const std::string line = only();
    EXPECT_TRUE(line.size() > 4000 && line.size() < 4095) << line.size();  // with its NUL
    EXPECT_EQ(line.rfind("[App] xxx", 0), 0u);

    // A cut through a multi-byte character must not lose the whole line.
    std::string accents;
    for (int i = 0; i < 3000; ++i)
        accents += "é";
    LogTrace("App", "%s", accents.c_str());
    EXPECT_GT(only().size(), 4000u);

    // A mask longer than the buffer is cut, never overrun.
    LogTrace(std::string(5000, 'm').c_str(), "text");
    EXPECT_LT(only().size(), 4096u);
}

TEST_F(LogTraceTest, InvalidUtf8TextStaysVisible) {
    TraceMasksSet("App");
    LogTrace("App", "bytes %s end", "\xff\xfe");
    ASSERT_EQ(Messages().size(), 1u);
    EXPECT_EQ(Messages()[0].rfind("[App] bytes ", 0), 0u);
    EXPECT_NE(Messages()[0].find(" end"), std::string::npos);
}

TEST_F(LogTraceTest, NothingIsFormattedWithoutTargetOrWhenLoggingIsOff) {
    TraceMasksSet("*");
    // Formatting this pointer as a string would crash: proof the format is not touched.
    const char* poison = reinterpret_cast<const char*>(1);

    wxLog* previous = wxLog::SetActiveTarget(nullptr);
    EXPECT_FALSE(LogTraceIsEnabled("App"));
    LogTrace("App", "%s", poison);
    wxLog::SetActiveTarget(previous);

    wxLog::EnableLogging(false);
    EXPECT_FALSE(LogTraceIsEnabled("App"));
    LogTrace("App", "%s", poison);
    wxLog::EnableLogging(true);

    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(LogTraceTest, LineFromAnotherThreadReachesTargetAtOnce) {
    ASSERT_EQ(VeskCore_Init(), 1);  // makes this thread wx's main thread
    TraceMasksSet("Worker");
    bool wasMain = true;
    std::thread worker([&] {
        wasMain = wxThread::IsMain();
        LogTrace("Worker", "from thread");
    });
    worker.join();
    ASSERT_FALSE(wasMain);
    // No wxLog::FlushActive(): the line must already be there.
    EXPECT_EQ(Messages(), std::vector<std::string>{"[Worker] from thread"});
}

TEST_F(LogTraceTest, LuaTextIsLoggedLiterally) {
    TraceMasksSet("Script");
    LogTraceLua(wxString::FromUTF8("Script"), wxString::FromUTF8("100% done %s %d"));
    LogTraceLua(wxString::FromUTF8("Other"), wxString::FromUTF8("hidden"));
    EXPECT_EQ(Messages(), std::vector<std::string>{"[Script] 100% done %s %d"});
}

TEST_F(LogTraceTest, SettingTheListSplitsOnCommasAndKeepsBlanksAndDuplicates) {
    TraceMasksSet("App,,HTTP,");
    EXPECT_EQ(TraceMasksGet(), "App,HTTP");
    TraceMasksSet(",, SSL ,SSL,SSL");
    EXPECT_EQ(TraceMasksGet(), " SSL ,SSL,SSL");
    EXPECT_TRUE(LogTraceIsEnabled(" SSL "));  // blanks are part of the entry

    TraceMasksRemove("SSL");  // the first copy only
    EXPECT_EQ(TraceMasksGet(), " SSL ,SSL");
    TraceMasksRemove("absent");
    EXPECT_EQ(TraceMasksGet(), " SSL ,SSL");

    TraceMasksSet("");
    EXPECT_EQ(TraceMasksGet(), "");
}

TEST_F(LogTraceTest, AddingKeepsCommasInOneEntry) {
    TraceMasksAdd("a,b");
    TraceMasksAdd("a,b");
    EXPECT_EQ(wxLog::GetTraceMasks().size(), 2u);
    EXPECT_TRUE(LogTraceIsEnabled("a,b"));
    EXPECT_FALSE(LogTraceIsEnabled("a") || LogTraceIsEnabled("b"));
}

// The module's log functions: the level is the closure's upvalue.
TEST_F(LogTraceTest, LuaLogFunctionsLogAtTheirLevelAndCheckTheirArgument) {
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    for (int level : {wxLOG_Error, wxLOG_Warning, wxLOG_Message}) {
        lua_pushinteger(L, level);
        lua_pushcclosure(L, wxLogLua, 1);
        lua_setglobal(L, ("log" + std::to_string(level)).c_str());
    }
    ASSERT_EQ(luaL_dostring(L, "log1('50% off %s'); log2('careful'); log3(42)"), LUA_OK);
    EXPECT_EQ(log.Texts(wxLOG_Error), std::vector<std::string>{"50% off %s"});
    EXPECT_EQ(log.Texts(wxLOG_Warning), std::vector<std::string>{"careful"});
    EXPECT_EQ(log.Texts(wxLOG_Message), std::vector<std::string>{"42"});

    ASSERT_NE(luaL_dostring(L, "log1({})"), LUA_OK);
    EXPECT_NE(std::string(lua_tostring(L, -1)).find("bad argument #1"), std::string::npos);
    lua_close(L);
}

}  // namespace
