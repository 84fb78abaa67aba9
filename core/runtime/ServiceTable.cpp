#include "core/runtime/ServiceTable.h"

#include <wx/log.h>

#include "core/runtime/App.h"
#include "core/runtime/LogTrace.h"

namespace VeskCore {
namespace {

// A service name stands inside a Lua long string and in a module path.
constexpr const char kForbiddenInServiceName[] = "[=]'\" \\\n\r\t;";

void AskToExit(CLuaThread& thread) {
    if (thread.isRunning()) {
        thread.requestExit();
        thread.interrupt();
    }
}

}  // namespace

bool ServiceTable::Start(const wxString& name, CApp* app) {
    const std::string utf8 = name.utf8_string();
    LogTrace(CApp::s_Trace, "ServiceStart('%s')", utf8.c_str());
    if (utf8.find_first_of(kForbiddenInServiceName) != std::string::npos) {
        wxLogError(wxS("CApp::ServiceStart() - invalid service name '%s'"), name);
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex);
    // A key test only: a service that ended by itself is not started again.
    if (services.count(name) != 0)
        return true;
    const wxString chunk =
        wxString::Format(wxS("local svc = require [[%s]];\nsvc():main();"), name);
    auto thread = std::make_unique<CLuaThread>(chunk, utf8, app);
    thread->start(50, true, 0);
    services[name] = std::move(thread);
    return true;
}

std::unique_lock<std::mutex> ServiceTable::WaitForEnd(const wxString& name,
                                                      const CLuaThread* thread) {
    for (int polls = 1; polls < 500; ++polls) {
        std::unique_lock<std::mutex> lock(mutex);
        const auto entry = services.find(name);
        if (entry == services.end() || entry->second.get() != thread)
            return std::unique_lock<std::mutex>();
        if (!thread->isRunning())
            return lock;
        lock.unlock();
        wxThread::Sleep(10);
    }
    return std::unique_lock<std::mutex>();
}

bool ServiceTable::Stop(const wxString& name) {
    const std::string utf8 = name.utf8_string();
    LogTrace(CApp::s_Trace, "ServiceStop('%s')", utf8.c_str());
    CLuaThread* thread;
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto entry = services.find(name);
        if (entry == services.end())
            return false;
        thread = entry->second.get();
        LogTrace(CApp::s_Trace, "ServiceStop('%s') - service is running. Asking it to terminate.",
                 utf8.c_str());
        AskToExit(*thread);
    }
    wxThread::Yield();
    const std::unique_lock<std::mutex> ended = WaitForEnd(name, thread);
    if (!ended.owns_lock())
        return false;
    LogTrace(CApp::s_Trace, "ServiceStop('%s') - service is stopped.", utf8.c_str());
    services.erase(name);  // joins the thread that has ended
    return true;
}

bool ServiceTable::Contains(const wxString& name) {
    std::lock_guard<std::mutex> lock(mutex);
    return services.count(name) != 0;
}

std::vector<wxString> ServiceTable::Running() {
    std::vector<wxString> names;
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& [name, thread] : services)
        if (thread->isRunning())
            names.push_back(name);
    return names;  // in the map's order, which sorts names
}

void ServiceTable::AskAllToExit() {
    std::lock_guard<std::mutex> lock(mutex);
    for (auto& entry : services)
        AskToExit(*entry.second);
}

void ServiceTable::Shutdown() {
    std::lock_guard<std::mutex> lock(mutex);
    while (!services.empty()) {
        const auto entry = services.begin();
        while (entry->second->isRunning())
            wxThread::Sleep(10);
        services.erase(entry);
    }
}

}  // namespace VeskCore
