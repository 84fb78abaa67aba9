#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <set>
#include <thread>

#include "core/runtime/App.h"
#include "core/runtime/LuaThread.h"
#include "core/runtime/vesk_core.h"
#include "tests/common/CommonTestSupport.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;

namespace {

// Services report through the settings, under their module's name.
#define SERVICE(body) "local n = ... return function() return {main = function() " body " end} end"
const char kReturns[] = SERVICE("app:Set(n .. '.runs', (app:Get(n .. '.runs') or 0) + 1)");
const char kCooperates[] = SERVICE(
    "app:Set(n .. '.up', 1) while not app:ShouldExit(1000) do end app:Set(n .. '.done', 1)");
const char kIgnoresExit[] =
    SERVICE("app:Set(n .. '.up', 1) repeat SLB.Sleep(10) until app:Get(n .. '.release')");

class Services : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(VeskCore_Init(), 1);
        VeskTest::ScratchDir::Shell("mkdir " + dir / "svc");
        VeskTest::WriteFile(dir / "svc/once.lua", kReturns);
        VeskTest::WriteFile(dir / "stubborn.lua", kIgnoresExit);
        for (const std::string name : {"loop1", "loop2", "loop3"})
            VeskTest::WriteFile(dir / name + ".lua", kCooperates);
        app.Set("app.lua.path", dir / "?.lua");
    }
    // A failed test must leave no service running.
    void TearDown() override {
        app.Set("stubborn.release", "1");
        app.InitiateShutdown();
        app.Shutdown();
    }
    bool Reaches(const std::string& key, long long wanted) const {
        long long value = 0;
        for (int polls = 0; polls < 3000 && (app.Get(key, value), value != wanted); ++polls)
            wxThread::Sleep(10);
        return value == wanted;
    }

    VeskTest::CapturingLog log;
    VeskTest::ScratchDir dir;
    CApp app;
};

TEST_F(Services, StartRefusesBadNamesAndKeepsAnEndedServiceUntilStopped) {
    for (const std::string bad : {"svc;once", "svc once"}) {
        EXPECT_FALSE(app.ServiceStart(wxString::FromUTF8(bad)));
        EXPECT_TRUE(log.Contains("CApp::ServiceStart() - invalid service name '" + bad + "'"));
    }
    EXPECT_FALSE(app.ServiceStop(wxS("svc.once")));

    ASSERT_TRUE(app.ServiceStart(wxS("svc.once")));
    ASSERT_TRUE(Reaches("svc.once.runs", 1));
    MapUint32ToPointer threads;
    app.ThreadGetAll(threads);
    ASSERT_EQ(threads.size(), 1u);
    auto* thread = static_cast<CRunnable*>(threads.begin()->second);
    for (int polls = 0; polls < 3000 && thread->isRunning(); ++polls)
        wxThread::Sleep(10);
    ASSERT_FALSE(thread->isRunning());
    EXPECT_TRUE(app.ServiceIsRunning(wxS("svc.once")));
    EXPECT_TRUE(app.ServiceStart(wxS("svc.once")));
    EXPECT_TRUE(app.ServiceStop(wxS("svc.once")));  // joins whichever thread holds the entry
    EXPECT_TRUE(Reaches("svc.once.runs", 1));
    EXPECT_FALSE(app.ServiceIsRunning(wxS("svc.once")));
    EXPECT_EQ(app.ThreadGet(threads.begin()->first), nullptr);
    EXPECT_TRUE(app.ServiceStart(wxS("svc.once")));
    EXPECT_TRUE(Reaches("svc.once.runs", 2));
}

TEST_F(Services, StopGivesUpOnAServiceThatIgnoresItAndMayBeRetried) {
    ASSERT_TRUE(app.ServiceStart(wxS("stubborn")));
    ASSERT_TRUE(Reaches("stubborn.up", 1));
    EXPECT_FALSE(app.ServiceStop(wxS("stubborn")));
    EXPECT_TRUE(app.ServiceIsRunning(wxS("stubborn")));
    app.Set("stubborn.release", "1");
    EXPECT_TRUE(app.ServiceStop(wxS("stubborn")));
    EXPECT_FALSE(app.ServiceIsRunning(wxS("stubborn")));
}

TEST_F(Services, ShutdownAsksEveryServiceToEndAndCollectsThem) {
    EXPECT_FALSE(app.ShouldExit(0));  // this thread is no Runnable
    const std::string names[] = {"loop1", "loop2", "loop3"};
    for (const std::string& name : names)
        ASSERT_TRUE(app.ServiceStart(wxString::FromUTF8(name)) && Reaches(name + ".up", 1));
    MapUint32ToPointer threads;
    app.ThreadGetAll(threads);
    EXPECT_EQ(threads.size(), 3u);
    app.InitiateShutdown();
    EXPECT_TRUE(app.ShouldExit(0));
    app.Shutdown();
    for (const std::string& name : names)
        EXPECT_TRUE(Reaches(name + ".done", 1) && !app.ServiceIsRunning(wxString::FromUTF8(name)));
    app.ThreadGetAll(threads);
    EXPECT_TRUE(threads.empty());
}

// The last handle goes while a service starts: the application stops it and
// waits, and what the service copies of its handle keeps nothing alive.
TEST_F(Services, DroppingTheLastHandleStopsAndCollectsItsServices) {
    VeskTest::WriteFile(dir / "marks.lua", SERVICE("while not app:ShouldExit(1000) do end "
                                                   "io.open(app:Get('mark') .. n, 'w'):close()"));
    {
        CApp other;
        other.Set("app.lua.path", dir / "?.lua");
        other.Set("mark", dir / "ended-");
        ASSERT_TRUE(other.ServiceStart(wxS("marks")));
    }
    EXPECT_EQ(VeskTest::ScratchDir::Shell("test -f " + dir / "ended-marks"), 0);
}

TEST_F(Services, RegistryMapsHandlesBackToThreads) {
    CLuaThread first(wxString(), "first", nullptr), second(wxString(), "second", nullptr);
    const wxUint32 a = app.ThreadRegister(&first), b = app.ThreadRegister(&second);
    EXPECT_TRUE(a != b && app.ThreadGet(a) == &first && app.ThreadGet(b) == &second);
    EXPECT_EQ(CApp().ThreadGet(a), nullptr);
    MapUint32ToPointer all;
    all[0] = nullptr;  // whatever was there goes
    app.ThreadGetAll(all);
    EXPECT_EQ(all.size(), 2u);
    EXPECT_EQ(app.ThreadUnRegister(b), &second);
    EXPECT_TRUE(app.ThreadGet(b) == nullptr && app.ThreadUnRegister(b) == nullptr);
}

// Handles start from the tick count, so registrations within one tick
// collide and step away from each other; a step of 0 once meant a collision
// that never ended. Many registrations make every step value likely.
TEST_F(Services, RegistrationsInOneTickGetDistinctHandlesAndEnd) {
    constexpr int kThreads = 200000;
    static char slots[kThreads];  // the registry keeps pointers and never follows them
    std::promise<std::set<wxUint32>> handles;
    std::future<std::set<wxUint32>> result = handles.get_future();
    std::thread([this, &handles] {
        std::set<wxUint32> seen;
        for (char& slot : slots)
            seen.insert(app.ThreadRegister(reinterpret_cast<CRunnable*>(&slot)));
        handles.set_value(std::move(seen));
    }).detach();
    if (result.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "ThreadRegister did not end";
        std::quick_exit(1);  // the spinning thread can't be stopped
    }
    const std::set<wxUint32> seen = result.get();
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads));
    EXPECT_EQ(seen.count(0), 0u);  // 0 is no handle
    for (const wxUint32 handle : seen)
        ASSERT_NE(app.ThreadUnRegister(handle), nullptr);
}

}  // namespace
