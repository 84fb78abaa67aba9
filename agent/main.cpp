// vesk-agent: the host program of vesk_core. It installs the log target,
// brings the library up, runs what the command line asks, and brings it down.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wx/filename.h>
#include <wx/wfstream.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <lua.hpp>
#include <map>
#include <sstream>

#include "agent/AgentOptions.h"
#include "agent/StderrLog.h"
#include "core/common/FileUtil.h"
#include "core/lua/LuaInterpreter.h"
#include "core/runtime/App.h"
#include "core/runtime/LogTrace.h"
#include "core/runtime/Version.h"
#include "core/runtime/vesk_core.h"
#include "slb/Manager.h"

namespace {

// The directory of the running executable: the default install location from
// which the Lua package paths are derived.
std::string ExecutableDirectory() {
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0)
        return ".";
    path[n] = '\0';
    return wxFileName(wxString::FromUTF8(path)).GetPath().utf8_string();
}

std::string DirectoryOf(const std::string& file) {
    const wxString dir = wxFileName(wxString::FromUTF8(file)).GetPath();
    return dir.empty() ? "." : dir.utf8_string();
}

std::string BinPath(const CAgentOptions& options) {
    return options.binPath.empty() ? ExecutableDirectory() : options.binPath;
}

int RunScriptFile(const CAgentOptions& options) {
    wxFileInputStream source(wxString::FromUTF8(options.script));
    if (!source.IsOk()) {
        fprintf(stderr, "vesk-agent: cannot read '%s'\n", options.script.c_str());
        return 1;
    }
    VeskCore::CLuaInterpreter lua(false, "Main.verbose", true);
    // Modules beside the script come first, as a user running it would expect.
    std::string luaPath = DirectoryOf(options.script) + "/?.lua";
    if (!options.luaPath.empty())
        luaPath = options.luaPath + ";" + luaPath;
    lua.SetPackagePaths(BinPath(options), luaPath, options.luaCPath, options.zipPath);
    wxFFileOutputStream output(stdout);
    const int status =
        lua.RunScript(source, 0, 0, wxString::FromUTF8("@" + options.script), &output);
    output.Sync();
    if (status == 0 || status == -1)
        return 0;
    if (!lua.GetErrorInfo().empty())
        wxLogError(wxS("%s"), lua.GetErrorInfo());
    return 1;
}

// The fields of the module table itself, as `require "vesk_core"` gives it:
// read from a real open, so that the reference follows the library.
void WriteModuleTable(std::ostream& out) {
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    luaL_requiref(L, "vesk_core", luaopen_vesk_core, 0);  // +1
    std::map<std::string, std::string> fields;
    lua_pushnil(L);
    while (lua_next(L, -2) != 0) {  // key at -2, value at -1
        if (lua_type(L, -2) == LUA_TSTRING) {
            std::string line = std::string(luaL_typename(L, -1)) + " `" + lua_tostring(L, -2) + "`";
            if (lua_type(L, -1) != LUA_TFUNCTION && lua_type(L, -1) != LUA_TTABLE)
                line += std::string(" = ") + luaL_tolstring(L, -1, nullptr), lua_pop(L, 1);
            fields[lua_tostring(L, -2)] = line;
        }
        lua_pop(L, 1);
    }
    lua_close(L);
    out << "\n## Module table — `require \"vesk_core\"`\n\n"
        << "Its own fields; every other name resolves in `SLB`.\n\n";
    for (const auto& field : fields)
        out << "- " << field.second << "\n";
}

int WriteApiReference() {
    std::ostringstream reference;
    SLB::Manager::defaultManager()->writeReference(reference);
    WriteModuleTable(reference);
    const std::string text = reference.str();
    return fwrite(text.data(), 1, text.size(), stdout) == text.size() ? 0 : 1;
}

// The signals that stop the agent. Blocked before any thread exists, so that
// every thread inherits the block and the main thread takes them in sigwait.
sigset_t StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

bool PrepareStateDirectory(const std::string& path) {
    const wxString dir = wxString::FromUTF8(path);
    if (!wxFileName::DirExists(dir) && !wxFileName::Mkdir(dir, 0700, wxPATH_MKDIR_FULL)) {
        wxLogError(wxS("vesk-agent: cannot make the state directory '%s'"), dir);
        return false;
    }
    VeskCore::SecureFileOrDirectory(dir, false);
    return true;
}

void ConfigureApp(VeskCore::CApp& app, const CAgentOptions& options) {
    app.Set("app.path.bin", BinPath(options));
    app.Set("app.lua.path", options.luaPath);
    app.Set("app.lua.cpath", options.luaCPath);
    app.Set("app.lua.zippath", options.zipPath);
    if (!options.traceMasks.empty())
        app.Set("app.trace", options.traceMasks);
    app.Set("agent.state.dir", options.stateDir);
}

// Runs the services until a stop signal; then stops them all and waits.
int Serve(const CAgentOptions& options) {
    // What the agent and its scripts write (configuration, keys) is theirs alone.
    umask(077);
    if (!options.stateDir.empty() && !PrepareStateDirectory(options.stateDir))
        return 1;
    VeskCore::CApp app;
    ConfigureApp(app, options);
    // A write of nothing loads the stored configuration, so that services
    // read it from their start.
    if (!options.stateDir.empty())
        app.ConfigSet("<Config/>");
    for (const std::string& service : options.services)
        app.ServiceStart(wxString::FromUTF8(service));

    const sigset_t signals = StopSignals();
    int signal = 0;
    sigwait(&signals, &signal);
    wxLogMessage(wxS("vesk-agent: signal %d, stopping the services"), signal);
    app.InitiateShutdown();
    app.Shutdown();
    wxLogMessage(wxS("vesk-agent: stopped"));
    return 0;
}

int Run(const CAgentOptions& options) {
    switch (options.mode) {
        case CAgentOptions::Mode::ApiDoc:
            return WriteApiReference();
        case CAgentOptions::Mode::Serve:
            return Serve(options);
        default:
            if (!options.traceMasks.empty())
                VeskCore::TraceMasksSet(options.traceMasks);
            return RunScriptFile(options);
    }
}

}  // namespace

int main(int argc, char** argv) {
    CAgentOptions options;
    std::string error;
    if (!CAgentOptions::Parse(argc, argv, options, error)) {
        fprintf(stderr, "vesk-agent: %s\nTry 'vesk-agent --help'.\n", error.c_str());
        return 2;
    }
    if (options.mode == CAgentOptions::Mode::Help) {
        fputs(CAgentOptions::Usage(), stdout);
        return 0;
    }
    if (options.mode == CAgentOptions::Mode::Version) {
        printf("vesk-agent %s\n", VESK_VERSION_STRING);
        return 0;
    }
    if (options.mode == CAgentOptions::Mode::Serve) {
        const sigset_t signals = StopSignals();
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }
    // Library threads take SIGPIPE; a peer or a reader of the log that has
    // gone must give a failed write, not end the agent.
    signal(SIGPIPE, SIG_IGN);

    CStderrLog log(getenv("JOURNAL_STREAM") != nullptr);
    wxLog::SetActiveTarget(&log);
    int status = 1;
    if (VeskCore_Init() != 1) {
        wxLogError(wxS("vesk-agent: the library failed to start"));
    } else {
        try {
            status = Run(options);
        } catch (const std::exception& e) {
            wxLogError(wxS("vesk-agent: %s"), wxString::FromUTF8(e.what()));
        } catch (...) {
            wxLogError(wxS("vesk-agent: unknown exception"));
        }
    }
    VeskCore_Term();
    wxLog::SetActiveTarget(nullptr);
    return status;
}
