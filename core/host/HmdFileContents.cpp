#include "core/host/HmdFileContents.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <fcntl.h>
#include <pcre2.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "core/host/HmdText.h"

namespace VeskCore {

namespace {

// The options of the regular expressions scripts have always used, with
// ^ and $ at every line end so that one search can run across many lines.
constexpr uint32_t kCompileOptions =
    PCRE2_UTF | PCRE2_DOTALL | PCRE2_ALT_BSUX | PCRE2_MULTILINE | PCRE2_MATCH_INVALID_UTF;
constexpr size_t kPiece = 1 << 20;

// Constructs that look past a line's ends, or change them: with one of
// these a search across lines could miss a line that matches alone.
bool SeesPastLineEnds(const std::string& pattern) {
    static const char* const kConstructs[] = {
        "\\A", "\\z", "\\Z", "\\G", "\\K", "(?=", "(?!", "(?<=", "(?<!", "(*", "(?C"};
    return std::any_of(std::begin(kConstructs), std::end(kConstructs), [&](const char* construct) {
        return pattern.find(construct) != std::string::npos;
    });
}

// A line's bytes as UTF-8 without NUL, by the rule of HmdText.h.
void AppendLine(const char* line, size_t length, std::string& out) {
    const size_t start = out.size();
    AppendHostText(line, length, out);
    if (memchr(out.data() + start, '\0', out.size() - start) == nullptr)
        return;
    std::string clean;
    for (size_t i = start; i < out.size(); ++i)
        clean += out[i] == '\0' ? std::string("\xEF\xBF\xBD") : std::string(1, out[i]);
    out.replace(start, std::string::npos, clean);
}

// The end of the line that holds `at` (its first "\r" or "\n"), and the
// length of that ending.
const char* LineEnd(const char* at, const char* end, size_t& endingLength) {
    const auto* newline = static_cast<const char*>(memchr(at, '\n', static_cast<size_t>(end - at)));
    const char* stop = newline != nullptr ? newline : end;
    const auto* ret = static_cast<const char*>(memchr(at, '\r', static_cast<size_t>(stop - at)));
    if (ret == nullptr) {
        endingLength = newline != nullptr ? 1 : 0;
        return stop;
    }
    endingLength = ret + 1 < end && ret[1] == '\n' ? 2 : 1;
    return ret;
}

// The start of the line that holds `at`, looking back no further than `floor`.
const char* LineStart(const char* floor, const char* at) {
    const auto* newline =
        static_cast<const char*>(memrchr(floor, '\n', static_cast<size_t>(at - floor)));
    const char* from = newline != nullptr ? newline + 1 : floor;
    const auto* ret = static_cast<const char*>(memrchr(from, '\r', static_cast<size_t>(at - from)));
    return ret != nullptr ? ret + 1 : from;
}

}  // namespace

struct CLineMatcher::Compiled {
    pcre2_code* code = nullptr;
    pcre2_match_data* data = nullptr;
    pcre2_match_context* context = nullptr;
    pcre2_jit_stack* stack = nullptr;
    std::string latin1;  // an invalid line, as the text it is matched as

    ~Compiled() {
        pcre2_match_data_free(data);
        pcre2_match_context_free(context);
        pcre2_jit_stack_free(stack);
        pcre2_code_free(code);
    }
};

CLineMatcher::CLineMatcher() = default;
CLineMatcher::~CLineMatcher() = default;

bool CLineMatcher::Compile(const std::string& pattern, std::string& error) {
    compiled_.reset();
    everyLine_ = pattern.empty();
    if (everyLine_)
        return true;
    auto compiled = std::make_unique<Compiled>();
    const std::unique_ptr<pcre2_compile_context, decltype(&pcre2_compile_context_free)> context(
        pcre2_compile_context_create(nullptr), &pcre2_compile_context_free);
    pcre2_set_newline(context.get(), PCRE2_NEWLINE_ANYCRLF);
    int code = 0;
    PCRE2_SIZE offset = 0;
    compiled->code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                                   kCompileOptions, &code, &offset, context.get());
    if (compiled->code == nullptr) {
        PCRE2_UCHAR message[256];
        pcre2_get_error_message(code, message, sizeof message);
        error = reinterpret_cast<const char*>(message);
        return false;
    }
    pcre2_jit_compile(compiled->code, PCRE2_JIT_COMPLETE);  // without JIT it still matches
    compiled->data = pcre2_match_data_create_from_pattern(compiled->code, nullptr);
    compiled->context = pcre2_match_context_create(nullptr);
    compiled->stack = pcre2_jit_stack_create(32 * 1024, 8 * 1024 * 1024, nullptr);
    if (compiled->data == nullptr || compiled->context == nullptr || compiled->stack == nullptr) {
        error = "out of memory";
        return false;
    }
    pcre2_jit_stack_assign(compiled->context, nullptr, compiled->stack);
    acrossLines_ = !SeesPastLineEnds(pattern);
    compiled_ = std::move(compiled);
    return true;
}

bool CLineMatcher::MatchesLine(const char* line, size_t length) {
    if (everyLine_)
        return true;
    if (!IsUtf8(line, length)) {
        compiled_->latin1.clear();
        AppendHostText(line, length, compiled_->latin1);
        line = compiled_->latin1.data();
        length = compiled_->latin1.size();
    }
    return pcre2_match(compiled_->code, reinterpret_cast<PCRE2_SPTR>(line), length, 0, 0,
                       compiled_->data, compiled_->context) >= 0;
}

void CLineMatcher::MatchEachLine(const char* data, size_t length, std::string& out) {
    const char* const end = data + length;
    for (const char* line = data; line < end;) {
        size_t ending = 0;
        const char* lineEnd = LineEnd(line, end, ending);
        if (MatchesLine(line, static_cast<size_t>(lineEnd - line))) {
            AppendLine(line, static_cast<size_t>(lineEnd - line), out);
            out += '\n';
        }
        line = lineEnd + ending;
    }
}

// One search finds the next candidate in all the lines at once; a match that
// stays inside its line is one the line has alone, and a line whose match
// runs past its end is tested alone.
void CLineMatcher::MatchAcrossLines(const char* data, size_t length, std::string& out) {
    const char* const end = data + length;
    const char* from = data;
    while (from < end) {
        const int found = pcre2_match(compiled_->code, reinterpret_cast<PCRE2_SPTR>(data), length,
                                      static_cast<PCRE2_SIZE>(from - data), 0, compiled_->data,
                                      compiled_->context);
        if (found == PCRE2_ERROR_NOMATCH)
            return;
        if (found < 0) {  // a limit hit over the long subject: line by line from here
            MatchEachLine(from, static_cast<size_t>(end - from), out);
            return;
        }
        const PCRE2_SIZE* span = pcre2_get_ovector_pointer(compiled_->data);
        const char* start = data + span[0];
        if (start == end && (end[-1] == '\n' || end[-1] == '\r'))
            return;  // the position after the last ending starts no line
        size_t ending = 0;
        const char* lineStart = LineStart(from, start);
        const char* lineEnd = LineEnd(start, end, ending);
        const auto lineLength = static_cast<size_t>(lineEnd - lineStart);
        if (data + span[1] <= lineEnd || MatchesLine(lineStart, lineLength)) {
            AppendLine(lineStart, lineLength, out);
            out += '\n';
        }
        from = lineEnd + ending;
    }
}

void CLineMatcher::MatchLines(const char* data, size_t length, std::string& out, bool lineByLine) {
    if (!everyLine_ && !lineByLine && acrossLines_ && IsUtf8(data, length))
        MatchAcrossLines(data, length, out);
    else
        MatchEachLine(data, length, out);
}

namespace {

struct OpenFile {
    int fd;
    ~OpenFile() {
        if (fd >= 0)
            close(fd);
    }
};

// Where the whole lines in `data` end: after the last ending that can't
// still grow ("\r" as the last byte may be half of "\r\n").
size_t WholeLines(const char* data, size_t length) {
    for (size_t i = length; i > 0; --i) {
        const char c = data[i - 1];
        if (c == '\n' || (c == '\r' && i < length))
            return i;
    }
    return 0;
}

}  // namespace

ContentsRead SearchFile(const std::string& path, unsigned long long limit, CLineMatcher& matcher,
                        wxString& matched) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0)
        return ContentsRead::Failed;
    if (!S_ISREG(status.st_mode))
        return ContentsRead::NotRegular;
    if (static_cast<unsigned long long>(status.st_size) > limit)
        return ContentsRead::TooLarge;
    const OpenFile file{open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    if (file.fd < 0)
        return ContentsRead::Failed;
    // Swapped for a FIFO after the check above: refused, still unread.
    if (fstat(file.fd, &status) != 0 || !S_ISREG(status.st_mode))
        return ContentsRead::NotRegular;
    std::vector<char> buffer(limit >= kPiece ? kPiece : static_cast<size_t>(limit) + 1);
    // A file's bytes give at most one character each, and a missing last
    // line ending one more; past 1 GiB of address space it grows as it goes.
    constexpr size_t kMostReserved = 1u << 28;
    matched.reserve(matched.length() +
                    std::min(static_cast<size_t>(status.st_size) + 1, kMostReserved));
    std::string lines;  // one piece's matches, as UTF-8
    size_t held = 0;
    unsigned long long total = 0;
    for (;;) {
        if (held == buffer.size())
            buffer.resize(buffer.size() * 2);  // one line longer than a piece
        // One byte past the limit is enough to know the file is too large.
        const unsigned long long left = limit - total;
        size_t room = buffer.size() - held;
        if (left < room)
            room = static_cast<size_t>(left) + 1;
        const ssize_t got = read(file.fd, buffer.data() + held, room);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return ContentsRead::Failed;
        total += static_cast<unsigned long long>(got);
        if (total > limit)
            return ContentsRead::TooLarge;
        held += static_cast<size_t>(got);
        const size_t whole = got == 0 ? held : WholeLines(buffer.data(), held);
        lines.clear();
        matcher.MatchLines(buffer.data(), whole, lines);
        AppendUtf8(lines.data(), lines.size(), matched);
        memmove(buffer.data(), buffer.data() + whole, held - whole);
        held -= whole;
        if (got == 0) {
            if (matched.length() < matched.capacity() / 2)
                matched.Shrink();  // the answer outlives the search
            return ContentsRead::Read;
        }
    }
}

}  // namespace VeskCore
