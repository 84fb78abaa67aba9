// The line search behind the contents query.
//
// Patterns are PCRE2 in the dialect scripts have always used: UTF-8, "."
// matching any character, JavaScript-style \u escapes. A line matches when
// the pattern matches anywhere in it. Lines end at "\n", "\r\n" or a lone
// "\r"; the ending is not part of the line, and each matched line is
// written followed by "\n".
//
// Bytes: a line that is not valid UTF-8 is read byte for byte as Latin-1
// (and matched as such); a NUL byte in a matched line is written as U+FFFD,
// because XML cannot carry it and Lua strings would end there. The result
// is therefore always UTF-8 without NUL.
//
// Files are read in bounded pieces and only regular files are opened, so a
// FIFO or device can't block or flood the caller.
//
// Thread safety: a CLineMatcher is used by one thread at a time; the
// functions keep no state.
#pragma once

#include <wx/string.h>

#include <cstddef>
#include <memory>
#include <string>

namespace VeskCore {

class CLineMatcher {
  public:
    CLineMatcher();
    ~CLineMatcher();
    CLineMatcher(const CLineMatcher&) = delete;
    CLineMatcher& operator=(const CLineMatcher&) = delete;

    // An empty pattern matches every line. False with the compiler's
    // message in `error` for a pattern that does not compile.
    bool Compile(const std::string& pattern, std::string& error);

    // Appends each matching line of `data` to `out`. `data` holds whole
    // lines; its last line may lack its ending. `lineByLine` turns off the
    // search across lines that finds candidates fast (for tests, which
    // compare both).
    void MatchLines(const char* data, size_t length, std::string& out, bool lineByLine = false);

  private:
    struct Compiled;
    bool MatchesLine(const char* line, size_t length);
    void MatchEachLine(const char* data, size_t length, std::string& out);
    void MatchAcrossLines(const char* data, size_t length, std::string& out);

    std::unique_ptr<Compiled> compiled_;
    bool everyLine_ = true;
    bool acrossLines_ = false;  // the pattern can't see past a line's ends
};

enum class ContentsRead { Read, NotRegular, TooLarge, Failed };

// Reads the regular file `path` (links followed) in pieces, at most `limit`
// bytes of it, and appends its matching lines to `matched`. A file that
// reports a size above `limit`, or that yields more bytes than that, is
// TooLarge; anything but a regular file is refused before it is opened.
//
// Each piece's lines go into `matched` as soon as they are found, so that
// besides the answer only one piece is held; the room reserved from the
// file's size is address space, touched only as far as lines are added.
ContentsRead SearchFile(const std::string& path, unsigned long long limit, CLineMatcher& matcher,
                        wxString& matched);

}  // namespace VeskCore
