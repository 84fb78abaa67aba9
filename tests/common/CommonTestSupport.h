// Helpers for the utilities tests: a scratch directory, files, and the real
// command-line tools whose output the library must match.
#pragma once

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>

namespace VeskTest {

// A fresh directory in the test's temporary folder, removed with everything in it.
class ScratchDir {
  public:
    ScratchDir() {
        std::string pattern = ::testing::TempDir() + "vesk-common-XXXXXX";
        path_ = mkdtemp(&pattern[0]) != nullptr ? pattern : "";
        EXPECT_FALSE(path_.empty());
    }
    ~ScratchDir() { Shell("rm -rf '" + path_ + "'"); }
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    static int Shell(const std::string& command) { return system(command.c_str()); }

  private:
    std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string ReadFile(const std::string& path) {
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

// Standard output of a shell command, which must succeed.
inline std::string ToolOutput(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    char buffer[4096];
    for (size_t got; pipe != nullptr && (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        out.append(buffer, got);
    EXPECT_TRUE(pipe != nullptr && pclose(pipe) == 0) << command;
    return out;
}

// How many of the characters [from, to) of `was` still stand in `block`, whose characters
// are `width` bytes wide (the low byte compared). The heap may have taken the block back:
// reading it is the point. glibc keeps its bookkeeping in a freed block's first 16 bytes.
__attribute__((no_sanitize("address", "thread"), noinline)) inline size_t BytesLeft(
    const void* block, const char* was, size_t from, size_t to, size_t width = 1) {
    const volatile unsigned char* bytes = static_cast<const volatile unsigned char*>(block);
    size_t left = 0;
    for (size_t i = from; i < to; ++i)
        left += bytes[i * width] == static_cast<unsigned char>(was[i]);
    return left;
}

inline std::string RandomBytes(size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes)
        c = static_cast<char>(generator());
    return bytes;
}

}  // namespace VeskTest
