#include "core/runtime/LogTrace.h"

#include <wx/log.h>
#include <wx/string.h>
#include <wx/thread.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>

#include "core/common/Utf8.h"

namespace VeskCore {
namespace {

constexpr size_t kLineSize = 4096;

// The first occurrence of segment[0, length) in the NUL-terminated text.
template <typename SubjectChar>
const SubjectChar* FindSegment(const SubjectChar* text, const wxChar* segment, size_t length) {
    for (; *text != 0; ++text) {
        size_t i = 0;
        while (i < length && text[i] != 0 && static_cast<wxChar>(text[i]) == segment[i])
            ++i;
        if (i == length)
            return text;
    }
    return nullptr;
}

// wxString::Matches, step for step, quirks included: characters after a '*'
// that are '*' or '?' are skipped, a mismatch fails at once, and text left
// over at the end backtracks once to the last '*'. Masks written before must
// keep selecting what they selected, so its rules are copied rather than
// improved. Templated over the subject so that an ASCII mask is matched
// without building a wxString on every disabled trace call.
template <typename SubjectChar>
bool MatchesWildcard(const SubjectChar* text, const wxChar* mask) {
    const SubjectChar* lastStarInText = nullptr;
    const wxChar* lastStarInMask = nullptr;
    for (;;) {
        for (; *mask != 0; ++mask, ++text) {
            if (*mask == wxT('?')) {
                if (*text == 0)
                    return false;
            } else if (*mask == wxT('*')) {
                lastStarInText = text;
                lastStarInMask = mask;
                while (*mask == wxT('*') || *mask == wxT('?'))
                    ++mask;
                if (*mask == 0)
                    return true;
                size_t length = 0;
                while (mask[length] != 0 && mask[length] != wxT('*') && mask[length] != wxT('?'))
                    ++length;
                const SubjectChar* found = FindSegment(text, mask, length);
                if (found == nullptr)
                    return false;
                text = found + length - 1;
                mask += length - 1;
            } else if (*mask != static_cast<wxChar>(*text)) {
                return false;
            }
        }
        if (*text == 0)
            return true;
        if (lastStarInText == nullptr)
            return false;
        text = lastStarInText + 1;
        mask = lastStarInMask;
        lastStarInText = nullptr;
    }
}

// Whether the mask list has entries, kept by the operations that switch it
// (the only ones that do): an empty list is the common case in production,
// and a disabled trace then costs one load, not a call into wx.
std::atomic<bool> s_AnyMasks{false};

bool NoMasks() {
    return !s_AnyMasks.load(std::memory_order_relaxed);
}

void NoteMasksChanged() {
    s_AnyMasks.store(!wxLog::GetTraceMasks().empty(), std::memory_order_relaxed);
}

// The list is wx's and unguarded, as it always was: it is walked in place,
// since a copy would allocate on every disabled trace call and protect
// nothing (copying reads the same array).
template <typename SubjectChar>
bool AnyMaskMatches(const SubjectChar* subject) {
    if (NoMasks() || !wxLog::IsEnabled() || wxLog::GetActiveTarget() == nullptr)
        return false;
    for (const wxString& entry : wxLog::GetTraceMasks())
        if (MatchesWildcard(subject, entry.wx_str()))
            return true;
    return false;
}

bool IsAscii(const char* text, size_t length) {
    return std::all_of(text, text + length, [](char c) { return (c & 0x80) == 0; });
}

// vsnprintf may cut a multi-byte character in two; drop the broken tail so
// that a truncated line still converts as UTF-8.
size_t TrimPartialUtf8(const char* text, size_t length) {
    size_t start = length;
    while (start > 0 && length - start < 3 && (text[start - 1] & 0xC0) == 0x80)
        --start;
    if (start == 0)
        return length;
    const unsigned char lead = static_cast<unsigned char>(text[start - 1]);
    const size_t need = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    return length - (start - 1) < need ? start - 1 : length;
}

// wx holds back lines from threads without a target of their own until the
// main thread flushes; trace lines must reach the host's target when written.
// Off the main thread the active target (the thread's own, else the host's)
// takes the record directly.
void LogNow(wxLogLevel level, const wxString& text) {
    if (wxThread::IsMain()) {
        wxLog::OnLog(level, text, time(nullptr));
        return;
    }
    if (wxLog* const target = wxLog::GetActiveTarget())
        target->LogRecord(level, text,
                          wxLogRecordInfo(__FILE__, __LINE__, __func__, wxLOG_COMPONENT));
}

const char* MaskOf(_TraceSubsystem subsystem) {
    return subsystem == TraceCmd ? "Cmd" : "";
}

wxString FromUtf8(const std::string& text) {
    return wxString::FromUTF8(text.data(), text.size());
}

}  // namespace

bool LogTraceIsEnabled(const wxString& mask) {
    return AnyMaskMatches(mask.wx_str());
}

bool LogTraceIsEnabled(const char* mask) {
    if (NoMasks())
        return false;
    if (mask == nullptr)
        mask = "";
    const size_t length = strlen(mask);
    if (IsAscii(mask, length))
        return AnyMaskMatches(mask);
    return LogTraceIsEnabled(wxString::FromUTF8(mask, length));
}

void LogTraceV(const char* mask, const char* format, va_list args) {
    if (!LogTraceIsEnabled(mask))
        return;

    char line[kLineSize];
    // A mask longer than the line leaves no room for text; it is cut, never overrun.
    const size_t n = mask == nullptr ? 0 : std::min(strlen(mask), kLineSize - 4);
    line[0] = '[';
    if (n > 0)
        memcpy(line + 1, mask, n);
    memcpy(line + 1 + n, "] ", 3);
    const size_t textRoom = kLineSize - 4 - n;
    size_t length = n + 3;
    if (textRoom > 0) {
        const int written = vsnprintf(line + length, textRoom, format, args);
        if (written >= static_cast<int>(textRoom)) {
            length = TrimPartialUtf8(line, length + textRoom - 1);
        } else if (written > 0) {
            length += written;
        }
    }
    LogNow(wxLOG_Message, FromUTF8Lenient(line, length));
}

void LogTrace(const char* mask, const char* format, ...) {
    if (NoMasks())
        return;
    va_list args;
    va_start(args, format);
    LogTraceV(mask, format, args);
    va_end(args);
}

void LogTrace(_TraceSubsystem subsystem, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogTraceV(MaskOf(subsystem), format, args);
    va_end(args);
}

void TraceMasksSet(const std::string& list) {
    wxLog::ClearTraceMasks();
    NoteMasksChanged();
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(',', start);
        if (end == std::string::npos)
            end = list.size();
        if (end > start)
            wxLog::AddTraceMask(FromUtf8(list.substr(start, end - start)));
        start = end + 1;
    }
    NoteMasksChanged();
}

void TraceMasksAdd(const std::string& mask) {
    wxLog::AddTraceMask(FromUtf8(mask));
    NoteMasksChanged();
}

void TraceMasksRemove(const std::string& mask) {
    wxLog::RemoveTraceMask(FromUtf8(mask));
    NoteMasksChanged();
}

std::string TraceMasksGet() {
    const wxArrayString masks(wxLog::GetTraceMasks());
    std::string joined;
    for (size_t i = 0; i < masks.size(); ++i) {
        if (i > 0)
            joined += ',';
        joined += masks[i].utf8_string();
    }
    return joined;
}

}  // namespace VeskCore
