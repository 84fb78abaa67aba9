#include "core/common/StreamUtil.h"

#include <wx/log.h>

#include <cerrno>

#include "core/common/LogSysError.h"
#include "core/common/StringUtil.h"

namespace VeskCore {

long long StreamSize(wxInputStream& in) {
    const wxFileOffset position = in.TellI();
    if (position == wxInvalidOffset || !in.IsOk()) {
        return 0;
    }
    in.Reset();
    errno = 0;
    const wxFileOffset end = in.SeekI(0, wxFromEnd);
    if (end == wxInvalidOffset) {
        VESK_LOG_SYS_ERROR(errno, wxS("StreamSize() - error from SeekI() on input stream"));
        return 0;
    }
    in.Reset();
    in.SeekI(position, wxFromStart);
    in.Reset();
    return end - position;
}

void Indent(wxTextOutputStream& out, unsigned int count, char c) {
    if (count == 0) {
        return;
    }
    out.WriteString(wxString(CharFromByte(c), count));
}

namespace {

// Writes one block read from the input. False, with the rest of the block
// dropped, if the watcher refuses what was written or the output fails.
bool WriteBlock(wxOutputStream& out, const char* next, size_t left, CopyWatcher watcher,
                void* context) {
    while (left > 0) {
        out.Write(next, left);
        const size_t wrote = out.LastWrite();
        if (wrote != 0) {
            if (watcher != nullptr && !watcher(context, next, wrote)) {
                return false;
            }
            next += wrote;
            left -= wrote;
        }
        // A stream that takes nothing yet reports no error would spin here.
        if (!out.IsOk() || wrote == 0) {
            VESK_LOG_SYS_ERROR(wxS("VeskCore::CopyStream() - write to output stream failed"));
            return false;
        }
    }
    return true;
}

}  // namespace

bool CopyStream(wxInputStream& in, wxOutputStream& out, bool sync, CopyWatcher watcher,
                void* context) {
    char buffer[2048];
    bool result = true;
    // The end shows as a read that gives nothing. wx's Eof() would find it
    // out by reading a byte and pushing it back, before every block.
    while (in.IsOk()) {
        in.Read(buffer, sizeof buffer);
        const size_t got = in.LastRead();
        if (got == 0) {
            if (in.GetLastError() == wxSTREAM_READ_ERROR) {
                wxLogError(wxS("VeskCore::CopyStream() - read from input stream failed"));
                result = false;
            }
            break;
        }
        // A failed block doesn't end the copy: the input is drained regardless.
        if (!WriteBlock(out, buffer, got, watcher, context)) {
            result = false;
        }
    }
    if (sync) {
        out.Sync();
    }
    return result;
}

}  // namespace VeskCore
