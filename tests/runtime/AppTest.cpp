#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/runtime/AppPrivateData.h"
#include "core/runtime/LogTrace.h"
#include "core/runtime/vesk_core.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;

namespace {

// Shows what the application handed it; a few words fail on purpose.
const char kConfig[] = R"(local C = {} C.__index = C
function C:Store_Internal(x) if x == 'raise' then error('store exploded', 0) end
  if x == 'refuse' then return false, 'refused by policy' end self.last = x return true, '' end
function C:Clear(x) self.last = 'cleared ' .. type(x) .. ' [' .. x .. '] ' .. tostring(getmetatable(self) == C) return true end
function C:Fetch_Internal(n, xml)
  if n == 'raise' then error('fetch exploded', 0) elseif n == 'table' then return {} elseif n == 'setting' then return settings.probe end
  return n .. '=' .. tostring(self.last) .. (xml and ' as xml' or '') end
return function() return settings.broken == 'yes' and 42 or setmetatable({}, C) end)";

class AppSettings : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(VeskCore_Init(), 1); }
    void TearDown() override { TraceMasksSet(""); }
    AppPrivateData& Data() { return *static_cast<AppPrivateData*>(app.GetRefData()); }

    VeskTest::CapturingLog log;
    VeskTest::ScratchDir dir;
    CApp app;
};

TEST_F(AppSettings, ValuesKeepTheTypeTheyWereStoredWith) {
    const std::string bytes("a\0b", 3);
    CApp copy(app);  // the same application
    copy.Set("name", bytes);
    app.SetWxString(wxS("count"), -42);
    app.SetWxString(wxS("city"), wxString::FromUTF8("Z\xC3\xBCrich"));
    long long number = 1;
    bool flag = true;
    EXPECT_EQ(app.Get("name"), bytes);
    EXPECT_TRUE(app.Get("count", number) && number == -42);
    EXPECT_EQ(app.Get("city"), "Z\xC3\xBCrich");
    EXPECT_TRUE(app.Get("missing", flag) && !flag && app.Get("missing", number) && number == 0);

    Data().Settings().Set("flag", SettingsStore::kBoolean, 7, 1);
    EXPECT_TRUE(app.Get("flag", flag) && flag);
    Data().Settings().Set("ptr", SettingsStore::kLightUserdata,
                          reinterpret_cast<unsigned long>(&flag), 8);
    EXPECT_EQ(app.Get("ptr"), "");
    EXPECT_FALSE(Data().Settings().Get("ptr", SettingsStore::kLightUserdata, &number, nullptr));
    Data().Settings().Set("name", 42, 0, 0);  // an unknown code deletes
    EXPECT_EQ(app.Get("name"), "");

    EXPECT_EQ(CApp().Get("count"), "");  // another application
}

TEST_F(AppSettings, ReservedKeysAndTheSettingsText) {
    EXPECT_EQ(app.GetSettings(), "{\n}");
    app.Set("app.heapDebug", "5");
    long long number = 7;
    EXPECT_TRUE(app.Get("app.heapDebug", number) && number == 0);
    EXPECT_EQ(app.GetSettings(), "{\n\t[\"app.heapDebug\"] = 0\n}");

    app.Set("app.trace", "App,H\"Q");
    app.Set("app.trace+", "SSL");
    app.Set("app.trace-", "App");
    EXPECT_EQ(TraceMasksGet(), "H\"Q,SSL");
    EXPECT_EQ(app.GetSettings(), "{\n\t[\"app.heapDebug\"] = 0\n}");
    EXPECT_EQ(app.Get("app.trace"), "H\"Q,SSL");
    app.Set("app.trace", "Cmd");  // the copy stored by the read stays as it was
    EXPECT_EQ(TraceMasksGet(), "Cmd");
    EXPECT_THAT(
        app.GetSettings(),  // nothing escaped
        ::testing::AnyOf("{\n\t[\"app.heapDebug\"] = 0,\n\t[\"app.trace\"] = \"H\"Q,SSL\"\n}",
                         "{\n\t[\"app.trace\"] = \"H\"Q,SSL\",\n\t[\"app.heapDebug\"] = 0\n}"));
}

TEST_F(AppSettings, ConfigurationIsFoundThroughThePathKeysAndReportsFailures) {
    VeskTest::ScratchDir::Shell("mkdir " + dir / "vesk");
    VeskTest::WriteFile(dir / "vesk/Config.lua", kConfig);
    app.Set("app.lua.path", dir / "?.lua");
    EXPECT_EQ(app.ConfigGet("x"), "");  // only a write loads the module
    EXPECT_TRUE(log.Lines().empty());
    app.Set("broken", "yes");
    EXPECT_FALSE(app.ConfigSet("<a/>"));
    app.Set("broken", "no");
    ASSERT_TRUE(app.ConfigSet("<a/>"));
    EXPECT_EQ(app.ConfigGet("x"), "x=<a/>");
    EXPECT_EQ(app.ConfigGetXml("x"), wxS("x=<a/> as xml"));
    app.Set("probe", "seen");
    EXPECT_EQ(app.ConfigGet("setting"), "seen");

    EXPECT_FALSE(app.ConfigSet("refuse"));
    EXPECT_FALSE(app.ConfigSet("raise"));
    EXPECT_EQ(app.ConfigGet("raise") + app.ConfigGet("table"), "");
    EXPECT_THAT(log.Texts(wxLOG_Error),
                ::testing::UnorderedElementsAre(
                    "AppPrivateData::ConfigSet() - unexpected object type returned.",
                    "AppPrivateData::ConfigSet() - refused by policy",
                    "AppPrivateData::ConfigSet() - store exploded",
                    "AppPrivateData::ConfigGet() - fetch exploded",
                    "AppPrivateData::ConfigGet() - unexpected object type returned."));
    EXPECT_EQ(app.ConfigGet("x"), "x=<a/>");
    EXPECT_TRUE(app.ConfigSet(""));
    EXPECT_EQ(app.ConfigGet("x"), "x=cleared string [] true");
}

}  // namespace
