// Tests that compare the library with a real tool need the tool: without it
// the test is skipped with the tool's name, never failed.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <initializer_list>
#include <string>

namespace VeskTest {

// The first of `tools` that is not on PATH, or "" when all are.
inline std::string MissingTool(std::initializer_list<const char*> tools) {
    for (const char* tool : tools) {
        const std::string probe = std::string("command -v '") + tool + "' >/dev/null 2>&1";
        if (std::system(probe.c_str()) != 0)
            return tool;
    }
    return "";
}

}  // namespace VeskTest

// Skips the running test (or, in SetUpTestSuite, the suite) when a tool is missing.
#define VESK_SKIP_WITHOUT_TOOLS(...)                                                           \
    do {                                                                                       \
        const std::string vesk_missing = ::VeskTest::MissingTool({__VA_ARGS__});               \
        if (!vesk_missing.empty())                                                             \
            GTEST_SKIP() << "needs the tool '" << vesk_missing << "', which is not installed"; \
    } while (false)
