// vesk-agent: the host program of vesk_core. It installs the log target,
// brings the library up, runs what the command line asks, and brings it down.
#include <unistd.h>
#include <wx/filename.h>
#include <wx/wfstream.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>

#include "agent/AgentOptions.h"
#include "agent/StderrLog.h"
#include "core/lua/LuaInterpreter.h"
#include "core/runtime/LogTrace.h"
#include "core/runtime/Version.h"
#include "core/runtime/vesk_core.h"
#include "slb/Manager.h"

namespace {

// The directory of the running executable: the install location from which
// the Lua package paths are derived.
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

int RunScriptFile(const std::string& script) {
    wxFileInputStream source(wxString::FromUTF8(script));
    if (!source.IsOk()) {
        fprintf(stderr, "vesk-agent: cannot read '%s'\n", script.c_str());
        return 1;
    }
    VeskCore::CLuaInterpreter lua(false, "Main.verbose", true);
    // Modules beside the script come first, as a user running it would expect.
    lua.SetPackagePaths(ExecutableDirectory(), DirectoryOf(script) + "/?.lua", "", "");
    wxFFileOutputStream output(stdout);
    const int status = lua.RunScript(source, 0, 0, wxString::FromUTF8("@" + script), &output);
    output.Sync();
    if (status == 0 || status == -1)
        return 0;
    if (!lua.GetErrorInfo().empty())
        wxLogError(wxS("%s"), lua.GetErrorInfo());
    return 1;
}

int WriteApiReference() {
    std::ostringstream reference;
    SLB::Manager::defaultManager()->writeReference(reference);
    const std::string text = reference.str();
    return fwrite(text.data(), 1, text.size(), stdout) == text.size() ? 0 : 1;
}

int Run(const CAgentOptions& options) {
    if (!options.traceMasks.empty())
        VeskCore::TraceMasksSet(options.traceMasks);
    if (options.mode == CAgentOptions::Mode::ApiDoc)
        return WriteApiReference();
    return RunScriptFile(options.script);
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
