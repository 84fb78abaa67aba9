// The agent's command line.
#pragma once

#include <string>
#include <utility>
#include <vector>

struct CAgentOptions {
    enum class Mode { Run, Serve, Help, Version, ApiDoc };

    Mode mode = Mode::Help;
    std::string script;                 // --run FILE
    std::vector<std::string> services;  // --service NAME, in order
    std::string traceMasks;             // --trace MASKS, comma-separated
    std::string binPath;                // --bin-path DIR (default: the executable's)
    std::string luaPath;                // --lua-path TEMPLATES
    std::string luaCPath;               // --lua-cpath TEMPLATES
    std::string zipPath;                // --zip-path ARCHIVES
    std::string stateDir;               // --state-dir DIR
    unsigned stopTimeout = 20;          // --stop-timeout SECONDS
    std::vector<std::pair<std::string, std::string>> settings;  // --set NAME=VALUE

    // Parses argv. On a usage error returns false with `error` set.
    static bool Parse(int argc, const char* const* argv, CAgentOptions& options,
                      std::string& error);

    static const char* Usage();
};
