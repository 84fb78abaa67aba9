#include "core/common/SystemUtil.h"

#include <pwd.h>
#include <sys/types.h>
#include <wx/log.h>
#include <wx/thread.h>
#include <wx/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "core/common/LogSysError.h"
#include "core/common/NumberedMessages.h"

namespace VeskCore {

namespace {

struct PipeClose {
    void operator()(FILE* pipe) const { pclose(pipe); }
};

wxString TextOf(const std::string& bytes) {
    if (bytes.empty()) {
        return wxString();
    }
    wxString text = wxString::FromUTF8(bytes.data(), bytes.size());
    // Output that isn't UTF-8 is kept byte for byte rather than lost.
    return text.empty() ? wxString::From8BitData(bytes.data(), bytes.size()) : text;
}

// Reads `pipe` to its end into `bytes`. False after a read error; reading goes
// on past one, but stops when an error brings no data (it would never end).
bool ReadAll(FILE* pipe, std::string& bytes, const wxString& program, bool logErrors) {
    bool result = true;
    char buffer[1024];
    while (feof(pipe) == 0) {
        const size_t got = fread(buffer, 1, sizeof buffer, pipe);
        bytes.append(buffer, got);
        if (ferror(pipe) == 0) {
            continue;
        }
        const int error = errno;
        clearerr(pipe);
        if (error == EPIPE) {
            continue;
        }
        result = false;
        if (logErrors) {
            VESK_LOG_SYS_ERROR(error, NumberedMessage::kProgramNotRead, program);
        }
        if (got == 0) {
            break;
        }
    }
    return result;
}

}  // namespace

bool Execute(const wxString& program, const wxString& arguments, wxString& output, bool logErrors) {
    const wxString command = wxS("\"") + program + wxS("\" ") + arguments + wxS(" 2>&1");
    std::unique_ptr<FILE, PipeClose> pipe(popen(command.utf8_string().c_str(), "r"));
    if (!pipe) {
        const int error = errno;
        if (logErrors) {
            VESK_LOG_SYS_ERROR(error, NumberedMessage::kProgramNotStarted, program);
        }
        return false;
    }
    std::string bytes;
    const bool result = ReadAll(pipe.get(), bytes, program, logErrors);
    output = TextOf(bytes);
    const int status = pclose(pipe.release());
    // Exit code (second byte) or signal (low byte): either makes a failure.
    if ((((status >> 8) | status) & 0xFF) == 0) {
        return result;
    }
    if (logErrors) {
        wxLogError(NumberedMessage::kProgramFailed, program, status);
    }
    return false;
}

bool LookupUID(const wxString& /*unused*/, const wxString& uid, wxString& name) {
    const auto id = static_cast<uid_t>(std::atoll(uid.utf8_string().c_str()));
    struct passwd entry {};
    struct passwd* found = nullptr;
    char block[4096] = {};
    if (getpwuid_r(id, &entry, block, sizeof block - 1, &found) != 0) {
        name.clear();
        return false;
    }
    // glibc leaves the last entry it parsed in `entry` when none matched, so
    // `found` is the test of a match; the name must lie in our buffer.
    if (found != nullptr && entry.pw_name >= block && entry.pw_name < block + sizeof block - 1) {
        block[sizeof block - 1] = '\0';
        name = wxString::FromUTF8(entry.pw_name);
    }
    return true;
}

void SleepMilliseconds(unsigned long msec) {
    wxThread::Sleep(std::min(msec, kLongestSleepMs));
}

long long TimeNowMillis() {
    return wxGetLocalTimeMillis().GetValue();
}

void InitCrashHandler(const wxString& /*unused1*/, const wxString& /*unused2*/) {}

}  // namespace VeskCore
