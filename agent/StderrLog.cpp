#include "agent/StderrLog.h"

#include <sys/time.h>

#include <cstdio>
#include <ctime>

namespace {

const char* LevelName(wxLogLevel level) {
    switch (level) {
        case wxLOG_FatalError:
            return "Fatal";
        case wxLOG_Error:
            return "Error";
        case wxLOG_Warning:
            return "Warning";
        case wxLOG_Message:
            return "Message";
        case wxLOG_Status:
            return "Status";
        case wxLOG_Info:
            return "Info";
        case wxLOG_Debug:
            return "Debug";
        default:
            return "Trace";
    }
}

const char* JournalPriority(wxLogLevel level) {
    if (level <= wxLOG_Error)
        return "<3>";
    if (level == wxLOG_Warning)
        return "<4>";
    if (level <= wxLOG_Info)
        return "<6>";
    return "<7>";
}

std::string Timestamp() {
    timeval now;
    gettimeofday(&now, nullptr);
    tm local;
    localtime_r(&now.tv_sec, &local);
    char text[32];
    const size_t n = strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    snprintf(text + n, sizeof text - n, ".%03ld", static_cast<long>(now.tv_usec / 1000));
    return text;
}

}  // namespace

CStderrLog::CStderrLog(bool journal) : journal(journal) {}

std::string CStderrLog::FormatLine(wxLogLevel level, const wxString& text) const {
    if (!journal)
        return Timestamp() + " " + LevelName(level) + ": " + text.utf8_string();
    // journald reads each line as an entry of its own: every line of a record
    // (a traceback, say) carries the record's priority.
    const std::string priority = JournalPriority(level);
    std::string line = priority;
    for (const char c : text.utf8_string()) {
        line += c;
        if (c == '\n')
            line += priority;
    }
    return line;
}

void CStderrLog::DoLogRecord(wxLogLevel level, const wxString& msg, const wxLogRecordInfo&) {
    const std::string line = FormatLine(level, msg) + "\n";
    std::lock_guard<std::mutex> lock(writeMutex);
    fwrite(line.data(), 1, line.size(), stderr);
}
