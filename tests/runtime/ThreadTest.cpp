#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <stdexcept>

#include "core/runtime/LuaThread.h"
#include "core/runtime/vesk_core.h"
#include "slb/FuncCall.h"
#include "slb/Manager.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;

namespace {

std::atomic<bool> s_Gate{false};

// Liveness guard only: a lost wake-up fails here instead of hanging the suite.
// `done` may act (hand over a chunk, take the gate): it is not called again
// once it has held.
template <typename Done>
bool WaitFor(Done done) {
    for (int i = 0; i < 20000; ++i) {
        if (done())
            return true;
        wxThread::Sleep(1);
    }
    return false;
}

// Lua: SLB.threadtest.hold() waits for the gate and shuts it again; hold(text) throws.
int Hold(lua_State* L) {
    if (lua_isstring(L, 1))
        throw std::runtime_error(lua_tostring(L, 1));
    return WaitFor([] { return s_Gate.exchange(false); }) ? 0 : luaL_error(L, "gate stayed shut");
}

// A thread that runs `body` and counts the awakenings it is sent.
struct Probe : CRunnable {
    explicit Probe(std::function<void(Probe&)> body = {})
        : CRunnable(false, -1, false), body(std::move(body)) {}
    void OnRun() override { body(*this); }
    void Awaken() override {
        ++awakened;
        CRunnable::Awaken();
    }
    const char* GetThreadName() const override { return kName.c_str(); }
    inline static const std::string kName = std::string(200, 'n');
    std::function<void(Probe&)> body;
    std::atomic<int> awakened{0};
};

struct Threads : ::testing::Test {
    static void SetUpTestSuite() {
        ASSERT_EQ(VeskCore_Init(), 1);
        SLB::Manager::defaultManager()->set("threadtest::hold", SLB::FuncCall::create(&Hold));
    }
    VeskTest::CapturingLog log;
};

TEST_F(Threads, WorkerRunsOneChunkAtATimeAwakensEachRequesterOnceAndEndsOnRequest) {
    CLuaThread dropped(wxEmptyString, "dropped", nullptr);  // its destruction must not block
    dropped.startWithDefaults();
    CLuaThread worker(wxEmptyString, "worker", nullptr);
    Probe target, second;
    worker.startWithDefaults();
    ASSERT_TRUE(WaitFor([&] { return worker.isIdle(); }));
    ASSERT_TRUE(worker.RunScript(wxS("SLB.threadtest.hold()"), &target));
    EXPECT_FALSE(worker.RunScript(wxS("x = 2"), &second));  // busy: there is no queue
    s_Gate = true;
    ASSERT_TRUE(WaitFor([&] { return target.awakened == 1; }));
    EXPECT_TRUE(WaitFor([&] { return worker.IdleTime() > 0; }));
    ASSERT_TRUE(worker.RunScript(wxS("error('chunk went wrong')"), &target));
    ASSERT_TRUE(WaitFor([&] { return target.awakened == 2; }));
    ASSERT_TRUE(worker.RunScript(wxS("y = 1"), nullptr));
    // Awakenings come in order: once `second` has had its turn, a stray one would be in.
    ASSERT_TRUE(WaitFor([&] { return worker.RunScript(wxEmptyString, &second); }));
    ASSERT_TRUE(WaitFor([&] { return second.awakened == 1; }));
    EXPECT_EQ(target.awakened, 2);
    worker.requestExit();
    EXPECT_EQ(worker.join(), 0);
    // Only the failing chunk is logged: the held one ran to its end.
    ASSERT_EQ(log.Texts(wxLOG_Error).size(), 1u);
    EXPECT_NE(log.Texts(wxLOG_Error)[0].find("chunk went wrong"), std::string::npos);
}

TEST_F(Threads, EscapingExceptionsEndTheThreadWithTheirNumberedMessage) {
    // A native failure inside a script's call is the chunk's error, not the thread's.
    CLuaThread lua(wxS("SLB.threadtest.hold('trouble')"), std::string(100, 'l'), nullptr);
    lua.startWithDefaults();
    EXPECT_FALSE(lua.RunScript(wxS("x = 1"), nullptr));  // a one-shot is never idle
    EXPECT_EQ(lua.join(), 0);
    const std::function<void(Probe&)> bodies[] = {
        [](Probe&) {}, [](Probe&) { throw std::runtime_error(std::string(3000, 'w')); },
        [](Probe&) { throw "c text"; }, [](Probe&) { throw 0xbeefu; }, [](Probe&) { throw 2.5; }};
    for (const auto& body : bodies) {
        Probe probe(body);
        probe.startWithDefaults();
        EXPECT_EQ(probe.join(), &body == bodies ? 0 : -1);
    }
    const std::string thread = "Thread '" + Probe::kName.substr(0, 128) + "': ";
    EXPECT_EQ(log.Texts(wxLOG_Error),
              (std::vector<std::string>{"[string \"vesk\"]:1: trouble\nstack traceback:\n\t"
                                        "[string \"vesk\"]:1: in main chunk",
                                        "!5001!5001|" + thread + std::string(2048, 'w'),
                                        "5001|" + thread + "c text", "5001|" + thread + "0xbeef",
                                        "5001|" + thread + "unknown exception"}));
}

TEST_F(Threads, RunnableKeepsAnEarlyAwakeningSendsNoSignalAndLimitsItsCpu) {
    const int last = eventfd(0, EFD_NONBLOCK);
    auto* events = static_cast<unsigned long*>(calloc(2, sizeof(unsigned long)));
    events[0] = ~0ul;  // no descriptor: what is written there is lost
    events[1] = last;
    std::atomic<bool> woken{false}, usr2Pending{true};
    unsigned int unlimited = 0, capped = 0;
    Probe probe([&](Probe& self) {
        woken = !self.TestDestroy(0xFFFFFFFF);
        for (const long long start = get_cpu_time(); get_cpu_time() < start + 1100;) {
        }
        for (unsigned int limit : {0, 100, 150}) {
            self.SetCPULimit(limit);
            unlimited += self.CheckCPULimit();
        }
        self.SetCPULimit(50);  // as long a sleep as the use since the start, at most a second
        capped = self.CheckCPULimit();
        sigset_t set;
        sigpending(&set);
        usr2Pending = sigismember(&set, SIGUSR2) == 1;
    });
    probe.SetAwakenEvents(events, 2);
    probe.Awaken();  // kept: it ends the thread's first wait
    probe.startWithDefaults();
    EXPECT_TRUE(WaitFor([&] { return woken.load(); }));
    probe.interrupt();  // not interruptible: not even a blocked signal is sent
    probe.requestExit();
    EXPECT_EQ(probe.join(), 0);
    EXPECT_FALSE(usr2Pending);
    EXPECT_EQ(unlimited, 0u);
    EXPECT_EQ(capped, 1000u);
    uint64_t value = 0;
    EXPECT_EQ(read(last, &value, sizeof value), 8);
    EXPECT_EQ(value, 2u);  // 1 per awakening, summed by the eventfd
    close(last);
}

}  // namespace
