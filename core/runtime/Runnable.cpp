#include "core/runtime/Runnable.h"

#include <pthread.h>
#include <unistd.h>
#include <wx/log.h>
#include <wx/module.h>
#include <wx/wxsqlite3.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <lua.hpp>
#include <stdexcept>

#include "core/common/LogSysError.h"
#include "core/common/NumberedMessages.h"
#include "core/common/SystemUtil.h"
#include "core/lua/LuaInterpreter.h"
#include "core/runtime/App.h"

namespace VeskCore {
namespace {

constexpr const char* kRegistryKey = "VeskCore::CRunnable";
constexpr unsigned int kWaitForever = 0xFFFFFFFFu;

// wx keeps its thread table in a module that wxEntryStart sets up; a thread
// object made before would crash inside wxThread's constructor.
wxThreadKind CheckedKind(bool detached) {
    if (!wxModule::AreInitialized())
        throw std::logic_error("wx is not started: call Init() before making threads");
    return detached ? wxTHREAD_DETACHED : wxTHREAD_JOINABLE;
}

// Signals go to the host's main thread; a library thread takes only those
// that concern what it does itself.
void MaskSignals(bool interruptible) {
    sigset_t set;
    sigfillset(&set);
    sigdelset(&set, SIGCHLD);
    sigdelset(&set, SIGPIPE);
    if (interruptible)
        sigdelset(&set, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &set, nullptr);
}

wxString SpanText(long long milliseconds) {
    return wxTimeSpan::Milliseconds(wxLongLong(milliseconds)).Format(wxS("%H:%M:%S.%l"));
}

}  // namespace

CRunnable::CRunnable(bool interruptible, int idealProcessor, bool detached)
    : wxThread(CheckedKind(detached)),
      interruptible(interruptible),
      idealProcessor(idealProcessor) {}

CRunnable::~CRunnable() = default;

// wx's results are looked at where ignoring them costs memory safety: Run
// makes the system thread by itself when Create was not asked for, so only
// its result tells whether there is a thread to join; a second start and a
// Run after a failed Create are wx assertions, and a thread that never ran
// must not count as running.
void CRunnable::start(unsigned int priority, bool create, unsigned int stackSize) {
    exitRequested = false;
    if (created)
        return;  // a thread runs once
    try {
        if (create && Create(stackSize) != wxTHREAD_NO_ERROR)
            return;
        if (priority != 50)
            SetPriority(std::min(priority, static_cast<unsigned int>(wxPRIORITY_MAX)));
        SetIdealProcessor(idealProcessor);
        running = true;
        created = Run() == wxTHREAD_NO_ERROR;
        if (!created)
            running = false;
    } catch (...) {
        OnExit();
    }
}

int CRunnable::join() {
    if (!created)
        return -1;
    return static_cast<int>(reinterpret_cast<intptr_t>(Wait()));
}

bool CRunnable::isRunning() const {
    return IsAlive() || running;
}

void CRunnable::requestExit() {
    exitRequested = true;
    Awaken();
}

void CRunnable::Awaken() {
    {
        // Kept for a thread that is not waiting yet, so that it doesn't wait.
        wxMutexLocker lock(awakenMutex);
        awakened = true;
    }
    awakenCondition.Signal();
    wxMutexLocker lock(eventsMutex);
    if (!awakenEvents.empty()) {
        const uint64_t one = 1;
        const ssize_t ignored = write(awakenEvents.back(), &one, sizeof one);
        static_cast<void>(ignored);
    }
}

void CRunnable::interrupt() {
    if (!interruptible || !isRunning())
        return;
    const int result = pthread_kill(static_cast<pthread_t>(GetId()), SIGUSR2);
    if (result != 0)
        VESK_LOG_SYS_ERROR(result, wxS("pthread_kill()"));
}

wxThreadError CRunnable::Delete(ExitCode* rc) {
    interrupt();
    return wxThread::Delete(rc);
}

bool CRunnable::TestDestroy(unsigned int msecToWait) {
    // The wait and wx's own test belong to the thread itself; another thread
    // (a script holding this thread's object) gets the answer at once.
    if (wxThread::This() != this)
        return exitRequested;
    const bool locked = awakenMutex.Lock() == wxMUTEX_NO_ERROR;
    bool stop = wxThread::TestDestroy() || exitRequested;
    if (!stop) {
        const unsigned int wait = std::max(CheckCPULimit(), msecToWait);
        // Counted in advance, the full amount, even if an awakening cuts it short.
        totalSleepMs += wait;
        if (awakened)
            awakened = false;
        else if (wait == kWaitForever)
            awakenCondition.Wait();
        else if (wait != 0)
            awakenCondition.WaitTimeout(wait);
        awakened = false;
        stop = wxThread::TestDestroy() || exitRequested;
    }
    if (locked)
        awakenMutex.Unlock();
    return stop;
}

void CRunnable::SetAwakenEvents(unsigned long* events, unsigned long count) {
    std::vector<int> taken(count);
    for (unsigned long i = 0; i < count; ++i)
        taken[i] = static_cast<int>(events[i]);
    free(events);
    SetAwakenEvents(std::move(taken));
}

void CRunnable::SetAwakenEvents(std::vector<int> events) {
    wxMutexLocker lock(eventsMutex);
    awakenEvents = std::move(events);
}

unsigned int CRunnable::CheckCPULimit() {
    const unsigned int limit = GetCPULimit();
    if (limit == 0 || limit > 99)
        return 0;
    const unsigned int now = SystemTickCount();
    if (now - lastCheckTick <= 100)
        return 0;
    const long long cpu = get_cpu_time();
    if (cpu <= 0)
        return 0;
    // The sleep that brings this slice's share of a core down to the limit.
    unsigned int sleep = static_cast<unsigned int>((cpu - lastCpuMs) * (100 - limit) / limit);
    sleep = std::min(sleep, 1000u);
    if (sleep == 0)
        return 0;
    lastCheckTick = now;
    lastCpuMs = cpu;
    limitSleepMs += sleep;
    return sleep;
}

wxString CRunnable::GetCPUTimeStr() const {
    const long long startMs = startTimeMs.load(std::memory_order_relaxed);
    const wxDateTime start(wxLongLong(startMs < 0 ? 0 : startMs));
    const wxDateTime now = wxDateTime::UNow();
    const long long run = startMs < 0 ? 0 : now.GetValue().GetValue() - startMs;
    return wxString::Format(
        wxS("'%.128s' CPU:%d Start: %s_%s Now: %s_%s Run: %s RealCPU: %s/%s/%s Sleep: %lld/%lld"),
        wxString::FromUTF8(GetThreadName()), static_cast<int>(GetCPULimit()),
        start.Format(wxS("%Y-%m-%d")), start.Format(wxS("%H:%M:%S")), now.Format(wxS("%Y-%m-%d")),
        now.Format(wxS("%H:%M:%S")), SpanText(run), SpanText(startCpuMs.load()),
        SpanText(lastCpuMs.load()), SpanText(get_cpu_time()),
        static_cast<long long>(limitSleepMs.load()), static_cast<long long>(totalSleepMs.load()));
}

void CRunnable::Register(CApp* app) {
    if (app != nullptr)
        handle = app->ThreadRegister(this);
}

void CRunnable::UnRegister(CApp* app) {
    if (app != nullptr)
        app->ThreadUnRegister(handle);
    handle = 0;
}

void CRunnable::InitLua(const char* traceMask) {
    interpreter.reset();
    interpreter = std::make_unique<CLuaInterpreter>(false, traceMask, true);
    lua_State* const state = interpreter->L();
    lua_pushlightuserdata(state, this);
    lua_setfield(state, LUA_REGISTRYINDEX, kRegistryKey);
}

lua_State* CRunnable::L() const {
    return interpreter != nullptr ? interpreter->L() : nullptr;
}

CRunnable* CRunnable::This() {
    return dynamic_cast<CRunnable*>(wxThread::This());
}

CRunnable* CRunnable::FromLua(lua_State* L) {
    lua_getfield(L, LUA_REGISTRYINDEX, kRegistryKey);  // +1
    CRunnable* runnable =
        lua_islightuserdata(L, -1) != 0 ? static_cast<CRunnable*>(lua_touserdata(L, -1)) : nullptr;
    lua_pop(L, 1);
    return runnable;
}

void CRunnable::ResetAccounting() {
    startCpuMs = get_cpu_time();
    lastCpuMs = get_cpu_time();
    limitSleepMs = 0;
    totalSleepMs = 0;
    startTimeMs = wxDateTime::UNow().GetValue().GetValue();
    lastCheckTick = SystemTickCount();
}

wxThread::ExitCode CRunnable::Entry() {
    ResetAccounting();
    MaskSignals(interruptible);
    // wx would queue this thread's log lines until the main thread flushes;
    // the host's target (thread-safe by contract) takes them directly.
    wxLog* const previous = wxLog::SetThreadActiveTarget(wxLog::GetActiveTarget());
    const ExitCode code = RunReporting();
    // Closed here, on this thread, while its log lines still reach the host.
    interpreter.reset();
    wxLog::SetThreadActiveTarget(previous);
    return code;
}

// The last stop of every exception of the thread: logged, and the thread ends.
wxThread::ExitCode CRunnable::RunReporting() {
    try {
        SetThreadName(GetThreadName());
        OnRun();
        return nullptr;
    } catch (const std::exception& e) {
        wxLogError(NumberedMessage::kThreadStandardError, wxString::FromUTF8(GetThreadName()),
                   wxString::FromUTF8(e.what()));
    } catch (const wxSQLite3Exception& e) {
        wxLogError(NumberedMessage::kThreadDatabaseError, wxString::FromUTF8(GetThreadName()),
                   e.GetMessage());
    } catch (const char* text) {
        wxLogError(NumberedMessage::kThreadThrownText, wxString::FromUTF8(GetThreadName()),
                   wxString::FromUTF8(text));
    } catch (unsigned int number) {
        wxLogError(NumberedMessage::kThreadThrownNumber, wxString::FromUTF8(GetThreadName()),
                   number);
    } catch (...) {
        wxLogError(NumberedMessage::kThreadUnknownError, wxString::FromUTF8(GetThreadName()));
    }
    return reinterpret_cast<ExitCode>(static_cast<intptr_t>(-1));
}

void CRunnable::OnExit() {
    running = false;
    interpreter.reset();
}

}  // namespace VeskCore
