#include "agent/AgentOptions.h"

#include <cstring>
#include <map>

namespace {

bool TakeValue(int argc, const char* const* argv, int& i, std::string& value, std::string& error) {
    if (i + 1 >= argc) {
        error = std::string("option ") + argv[i] + " needs a value";
        return false;
    }
    value = argv[++i];
    return true;
}

// Options that take a value and only set it; the mode comes from the others.
std::string* SettingOption(const std::string& arg, CAgentOptions& options) {
    const std::map<std::string, std::string CAgentOptions::*> settings = {
        {"--trace", &CAgentOptions::traceMasks}, {"--bin-path", &CAgentOptions::binPath},
        {"--lua-path", &CAgentOptions::luaPath}, {"--lua-cpath", &CAgentOptions::luaCPath},
        {"--zip-path", &CAgentOptions::zipPath}, {"--state-dir", &CAgentOptions::stateDir},
    };
    const auto found = settings.find(arg);
    return found == settings.end() ? nullptr : &(options.*(found->second));
}

// Seconds, as a plain decimal count: "20", not "20s", "-1" or "1e3".
bool TakeSeconds(int argc, const char* const* argv, int& i, unsigned& seconds, std::string& error) {
    std::string text;
    if (!TakeValue(argc, argv, i, text, error))
        return false;
    const bool digits = !text.empty() && text.size() <= 6 &&
                        text.find_first_not_of("0123456789") == std::string::npos;
    if (!digits) {
        error = "option --stop-timeout takes whole seconds, not '" + text + "'";
        return false;
    }
    seconds = static_cast<unsigned>(std::stoul(text));
    return true;
}

}  // namespace

bool CAgentOptions::Parse(int argc, const char* const* argv, CAgentOptions& options,
                          std::string& error) {
    options = CAgentOptions();
    bool haveMode = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (std::string* setting = SettingOption(arg, options)) {
            if (!TakeValue(argc, argv, i, *setting, error))
                return false;
            continue;
        }
        if (arg == "--set") {
            std::string setting;
            if (!TakeValue(argc, argv, i, setting, error))
                return false;
            const size_t equals = setting.find('=');
            if (equals == 0 || equals == std::string::npos) {
                error = "option --set takes NAME=VALUE, not '" + setting + "'";
                return false;
            }
            options.settings.emplace_back(setting.substr(0, equals), setting.substr(equals + 1));
            continue;
        }
        if (arg == "--stop-timeout") {
            if (!TakeSeconds(argc, argv, i, options.stopTimeout, error))
                return false;
            continue;
        }
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
        } else if (arg == "--service") {
            std::string name;
            if (!TakeValue(argc, argv, i, name, error))
                return false;
            if (name.empty()) {
                error = "option --service needs a module name";
                return false;
            }
            options.services.push_back(name);
            mode = Mode::Serve;
        } else {
            error = "unknown option '" + arg + "'";
            return false;
        }
        if (haveMode && mode != options.mode) {
            error = "only one of --run, --service, --api-doc, --help and --version may be given";
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
    return "Usage: vesk-agent --service NAME [--service NAME]... [OPTIONS]\n"
           "       vesk-agent --run FILE [OPTIONS]\n"
           "       vesk-agent --api-doc\n"
           "       vesk-agent --help | --version\n"
           "\n"
           "  --service NAME     run the Lua module NAME as a service (repeatable); the\n"
           "                     agent runs until SIGTERM, SIGINT or SIGHUP, then stops\n"
           "                     them all; it exits 1 when every service has ended\n"
           "  --stop-timeout S   seconds a stop waits for the services (default 20); then\n"
           "                     the agent names those still running and exits 1\n"
           "  --run FILE         run a Lua script; print() goes to standard output\n"
           "  --bin-path DIR     install location for lua/ and lib/ (default: the\n"
           "                     directory of vesk-agent)\n"
           "  --lua-path PATHS   Lua module templates searched first, as in package.path\n"
           "  --lua-cpath PATHS  native module templates searched first\n"
           "  --zip-path FILES   ';'-separated zip archives of Lua modules\n"
           "  --set NAME=VALUE   a setting for the services (repeatable), as text\n"
           "  --state-dir DIR    where the configuration is kept (made 0700 if missing);\n"
           "                     one agent at a time: a second one refuses to start\n"
           "  --trace MASKS      comma-separated trace masks (wildcards * and ?), for example\n"
           "                     'App,HTTP' or '*'; NAME.verbose traces every line of the\n"
           "                     thread NAME ('Main' for --run)\n"
           "  --api-doc          print the reference of the Lua API in Markdown\n"
           "  --help             show this text\n"
           "  --version          show the version\n"
           "\n"
           "Exit status: 0 on success, the status given to os.exit, 1 when the script\n"
           "fails, the agent can't start, every service has ended or a stop runs past\n"
           "its time-out, 2 on a usage error.\n";
}
