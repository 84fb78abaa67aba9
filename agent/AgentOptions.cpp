#include "agent/AgentOptions.h"

#include <cstring>

namespace {

bool TakeValue(int argc, const char* const* argv, int& i, std::string& value, std::string& error) {
    if (i + 1 >= argc) {
        error = std::string("option ") + argv[i] + " needs a value";
        return false;
    }
    value = argv[++i];
    return true;
}

}  // namespace

bool CAgentOptions::Parse(int argc, const char* const* argv, CAgentOptions& options,
                          std::string& error) {
    options = CAgentOptions();
    bool haveMode = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        Mode mode;
        if (arg == "--help" || arg == "-h") {
            mode = Mode::Help;
        } else if (arg == "--version") {
            mode = Mode::Version;
        } else if (arg == "--api-doc") {
            mode = Mode::ApiDoc;
        } else if (arg == "--run") {
            if (!TakeValue(argc, argv, i, options.script, error))
                return false;
            mode = Mode::Run;
        } else if (arg == "--trace") {
            if (!TakeValue(argc, argv, i, options.traceMasks, error))
                return false;
            continue;
        } else {
            error = "unknown option '" + arg + "'";
            return false;
        }
        if (haveMode && mode != options.mode) {
            error = "only one of --run, --api-doc, --help and --version may be given";
            return false;
        }
        options.mode = mode;
        haveMode = true;
    }
    if (!haveMode) {
        error = "nothing to do";
        return false;
    }
    return true;
}

const char* CAgentOptions::Usage() {
    return "Usage: vesk-agent --run FILE [--trace MASKS]\n"
           "       vesk-agent --api-doc\n"
           "       vesk-agent --help | --version\n"
           "\n"
           "  --run FILE     run a Lua script; print() goes to standard output\n"
           "  --trace MASKS  comma-separated trace masks (wildcards * and ?), for example\n"
           "                 'App,HTTP' or '*'; 'Main.verbose' traces every line of the script\n"
           "  --api-doc      print the reference of the Lua API in Markdown\n"
           "  --help         show this text\n"
           "  --version      show the version\n"
           "\n"
           "Exit status: 0 on success (os.exit included), 1 when the script fails,\n"
           "2 on a usage error.\n";
}
