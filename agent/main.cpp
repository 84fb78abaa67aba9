// vesk-agent: the host program of vesk_core. It installs the log target,
// brings the library up, runs what the command line asks, and brings it down.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wx/filefn.h>
#include <wx/filename.h>
#include <wx/wfstream.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <lua.hpp>
#include <map>
#include <memory>
#include <new>
#include <sstream>

#include "agent/AgentOptions.h"
#include "agent/ServiceHost.h"
#include "agent/StderrLog.h"
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

// Installed with the system (in /usr/bin), the agent has no lua/ or lib/
// beside it: its modules are in the Lua 5.2 directories it was built for.
// Those come last; the templates of the agent's directory are named before
// them because the interpreter puts the given paths ahead of its own.
std::string InstalledLuaPath(const std::string& binPath) {
    if (!wxDirExists(wxString::FromUTF8(VESK_LUA_DATA_DIR)))
        return {};
    return binPath + "/lua/?.lua;" + binPath +
           "/lua/?/init.lua;" VESK_LUA_DATA_DIR "/?.lua;" VESK_LUA_DATA_DIR "/?/init.lua";
}

std::string InstalledLuaCPath(const std::string& binPath) {
    if (!wxDirExists(wxString::FromUTF8(VESK_LUA_CDATA_DIR)))
        return {};
    return binPath + "/lib/?.so;" + binPath + "/../lib/?.so;" + binPath +
           "/?.so;" VESK_LUA_CDATA_DIR "/?.so";
}

std::string JoinedPath(const std::string& first, const std::string& second) {
    return first.empty() || second.empty() ? first + second : first + ";" + second;
}

bool IsReadableFile(const std::string& path, std::string& problem) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        problem = strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        problem = S_ISDIR(info.st_mode) ? "is a directory" : "is not a regular file";
        return false;
    }
    return true;
}

// What a failed script leaves for the reader: its message and traceback, or
// what the stand-alone `lua` prints for an error value that is no text.
void ReportFailure(const VeskCore::CLuaInterpreter& lua) {
    const wxString& text =
        lua.GetErrorInfo().empty() ? lua.GetErrorValueText() : lua.GetErrorInfo();
    if (!text.empty())
        wxLogError(wxS("%s"), text);
}

int RunScriptFile(const CAgentOptions& options) {
    std::string problem;
    wxFileInputStream source(wxString::FromUTF8(options.script));
    if (!IsReadableFile(options.script, problem) || !source.IsOk()) {
        fprintf(stderr, "vesk-agent: cannot read '%s'%s%s\n", options.script.c_str(),
                problem.empty() ? "" : ": ", problem.c_str());
        return 1;
    }
    VeskCore::CLuaInterpreter lua(false, "Main.verbose", true);
    // Modules beside the script come first, as a user running it would expect.
    std::string luaPath = JoinedPath(options.luaPath, DirectoryOf(options.script) + "/?.lua");
    luaPath = JoinedPath(luaPath, InstalledLuaPath(options.binPath));
    const std::string cpath = JoinedPath(options.luaCPath, InstalledLuaCPath(options.binPath));
    lua.SetPackagePaths(options.binPath, luaPath, cpath, options.zipPath);
    wxFFileOutputStream output(stdout);
    const int status =
        lua.RunScript(source, 0, 0, wxString::FromUTF8("@" + options.script), &output);
    output.Sync();
    if (status == 0)
        return 0;
    // As the stand-alone `lua` does, the process keeps the low byte.
    if (status == -1)
        return lua.GetExitStatus() & 0xFF;
    ReportFailure(lua);
    return 1;
}

// The fields of the module table itself, as `require "vesk_core"` gives it:
// read from a real open, so that the reference follows the library.
void WriteModuleTable(std::ostream& out) {
    const std::unique_ptr<lua_State, decltype(&lua_close)> state(luaL_newstate(), &lua_close);
    lua_State* const L = state.get();
    if (L == nullptr)
        throw std::bad_alloc();
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

int Run(const CAgentOptions& options) {
    switch (options.mode) {
        case CAgentOptions::Mode::ApiDoc:
            return WriteApiReference();
        case CAgentOptions::Mode::Serve: {
            CAgentOptions serve = options;
            serve.luaPath = JoinedPath(options.luaPath, InstalledLuaPath(options.binPath));
            serve.luaCPath = JoinedPath(options.luaCPath, InstalledLuaCPath(options.binPath));
            return CServiceHost(serve).Run();
        }
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
    // Started with stop signals ignored (nohup, a shell's background job),
    // the agent could not be stopped at all: ignored signals never reach
    // sigwait, nor end a script.
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    if (options.mode == CAgentOptions::Mode::Serve) {
        signal(SIGHUP, SIG_DFL);
        const sigset_t signals = CServiceHost::StopSignals();
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
            if (options.binPath.empty())
                options.binPath = ExecutableDirectory();
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
