#include "core/runtime/App.h"

#include <lua.hpp>

#include "core/common/SystemUtil.h"
#include "core/runtime/AppPrivateData.h"
#include "core/runtime/Runnable.h"
#include "slb/ClassInfo.h"
#include "slb/Manager.h"
#include "slb/TypeInfoWrapper.h"

namespace VeskCore {
namespace {

// wx counts handles with a plain integer; handles are copied and dropped on
// many threads (each service copies one at its start), so every change of a
// count goes through this lock.
wxMutex s_RefGuard;

CApp* AppFromLua(lua_State* L, int index) {
    const SLB::Manager* manager = SLB::Manager::getInstance(L);
    const SLB::ClassInfo* cls =
        manager != nullptr ? manager->getClass(SLB::TypeID<CApp>::get()) : nullptr;
    return cls != nullptr ? static_cast<CApp*>(cls->get_ptr(L, index)) : nullptr;
}

// The argument checks of app:Get and app:Set; they raise before any C++
// object exists in the caller.
CApp* CheckedApp(lua_State* L) {
    CApp* app = AppFromLua(L, 1);
    if (app == nullptr)
        luaL_argerror(L, 1, "App object expected");
    const int type = lua_type(L, 2);
    if (type != LUA_TSTRING && type != LUA_TNUMBER)
        luaL_argerror(L, 2, "Invalid setting name");
    return app;
}

}  // namespace

const char* const CApp::s_Trace = "App";

CApp::CApp() {
    m_refData = CreateRefData();
}

CApp::CApp(AppPrivateData* data, BorrowTag) : borrowed(true) {
    m_refData = data;
}

CApp::CApp(const CApp& other) : wxObject() {
    Share(other);
}

CApp& CApp::operator=(const CApp& other) {
    if (&other != this && other.m_refData != m_refData) {
        Release();
        Share(other);
    }
    return *this;
}

// A copy of a borrowed handle is borrowed too: what a service copies of the
// handle it runs with (its global `app`) never counts, so it can neither keep
// the application alive nor bring a dying one back, and the last release
// never happens on a service thread.
void CApp::Share(const CApp& other) {
    borrowed = other.borrowed;
    if (borrowed) {
        m_refData = other.m_refData;
        return;
    }
    wxMutexLocker lock(s_RefGuard);
    Ref(other);
}

CApp::~CApp() {
    Release();
}

// The count drops under the lock; the application itself is destroyed
// outside it, since that waits for service threads that drop handles too.
void CApp::Release() {
    if (borrowed) {
        m_refData = nullptr;
        return;
    }
    wxObjectRefData* last = nullptr;
    {
        wxMutexLocker lock(s_RefGuard);
        if (m_refData == nullptr)
            return;
        if (m_refData->GetRefCount() == 1)
            last = m_refData;
        else
            m_refData->DecRef();
        m_refData = nullptr;
    }
    if (last != nullptr)
        last->DecRef();  // the last reference: deletes it
}

wxObjectRefData* CApp::CreateRefData() const {
    return new AppPrivateData;
}

AppPrivateData* CApp::Data() const {
    return static_cast<AppPrivateData*>(m_refData);
}

std::string CApp::Get(const std::string& name) const {
    std::string value;
    Data()->Settings().Get(name.c_str(), SettingsStore::kString, &value, nullptr);
    return value;
}

bool CApp::Get(const std::string& name, long long& value) const {
    return Data()->Settings().Get(name.c_str(), SettingsStore::kInteger, &value, nullptr);
}

bool CApp::Get(const std::string& name, bool& value) const {
    return Data()->Settings().Get(name.c_str(), SettingsStore::kBoolean, &value, nullptr);
}

wxString CApp::GetWxString(const wxString& name) const {
    return wxString::FromUTF8(Get(name.utf8_string()));
}

bool CApp::Set(const std::string& name, const std::string& value) {
    Data()->Settings().Set(name.c_str(), SettingsStore::kString,
                           reinterpret_cast<unsigned long>(value.data()), value.size());
    return true;
}

bool CApp::SetWxString(const wxString& name, long long value) {
    Data()->Settings().Set(name.utf8_string().c_str(), SettingsStore::kInteger,
                           static_cast<unsigned long>(value), 8);
    return true;
}

bool CApp::SetWxString(const wxString& name, const wxString& value) {
    return Set(name.utf8_string(), value.utf8_string());
}

std::string CApp::GetSettings() const {
    return Data()->Settings().GetSettings();
}

std::string CApp::ConfigGet(const std::string& name) const {
    return Data()->Settings().ConfigGet(name, false);
}

wxString CApp::ConfigGetXml(const std::string& name) const {
    return wxString::FromUTF8(Data()->Settings().ConfigGet(name, true));
}

bool CApp::ConfigSet(const std::string& xml) {
    return Data()->Settings().ConfigSet(xml);
}

int CApp::Get(lua_State* L) {
    CheckedApp(L)->Data()->Settings().Get(L, 2);
    return 1;
}

int CApp::Set(lua_State* L) {
    CheckedApp(L)->Data()->Settings().Set(L, 2, 3);
    return 0;
}

bool CApp::ServiceStart(const wxString& name) {
    return Data()->ServiceStart(name);
}

bool CApp::ServiceStop(const wxString& name) {
    return Data()->ServiceStop(name);
}

bool CApp::ServiceIsRunning(const wxString& name) const {
    return Data()->ServiceIsRunning(name);
}

std::vector<wxString> CApp::RunningServices() const {
    return Data()->RunningServices();
}

wxUint32 CApp::ThreadRegister(CRunnable* thread) {
    return Data()->Threads().Register(thread);
}

CRunnable* CApp::ThreadUnRegister(wxUint32 handle) {
    return Data()->Threads().UnRegister(handle);
}

CRunnable* CApp::ThreadGet(unsigned int handle) {
    return Data()->Threads().Get(handle);
}

void CApp::ThreadGetAll(MapUint32ToPointer& out) const {
    Data()->Threads().GetAll(out);
}

void CApp::InitiateShutdown() {
    Data()->RequestShutdown();
    Data()->InitiateShutdown();
}

void CApp::Shutdown() {
    Data()->Shutdown();
}

bool CApp::ShouldExit(unsigned int msecToWait) const {
    if (Data()->ShutdownRequested())
        return true;
    if (CRunnable* runnable = CRunnable::This())
        return runnable->TestDestroy(msecToWait);
    SleepMilliseconds(msecToWait);
    return false;
}

}  // namespace VeskCore
