// The agent's command line.
#pragma once

#include <string>

struct CAgentOptions {
    enum class Mode { Run, Help, Version, ApiDoc };

    Mode mode = Mode::Help;
    std::string script;      // --run FILE
    std::string traceMasks;  // --trace MASKS, comma-separated

    // Parses argv. On a usage error returns false with `error` set.
    static bool Parse(int argc, const char* const* argv, CAgentOptions& options,
                      std::string& error);

    static const char* Usage();
};
