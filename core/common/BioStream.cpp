#include "core/common/BioStream.h"

#include <openssl/err.h>
#include <poll.h>
#include <wx/log.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/common/LogSysError.h"
#include "core/runtime/LogTrace.h"

namespace VeskCore {

bool BioShouldRetry(BIO* bio, bool& retryRead, bool& retryWrite) {
    retryRead = retryWrite = false;
    if (BIO_test_flags(bio, BIO_FLAGS_SHOULD_RETRY) == 0)
        return false;
    retryRead = BIO_test_flags(bio, BIO_FLAGS_READ) != 0;
    retryWrite = BIO_test_flags(bio, BIO_FLAGS_WRITE) != 0;
    return retryRead || retryWrite;
}

bool BioWaitWithTimeout(BIO* bio, bool forRead, bool forWrite, long timeoutSeconds) {
    if (!forRead && !forWrite)
        return false;
    int fd = -1;  // a chain without a socket leaves it as it is
    BIO_get_fd(bio, &fd);
    if (fd == -1)
        return false;
    // poll(), not select(): a descriptor past FD_SETSIZE would be written
    // beyond the set. Errors and hang-ups count as ready, as exceptional
    // conditions did: the next BIO call tells what happened.
    pollfd wanted{fd, 0, 0};
    if (forRead) {
        const bool buffered = BIO_pending(bio) > 0;
        if (buffered && !forWrite)
            return true;  // the chain already holds what a read wants
        if (!buffered)
            wanted.events |= POLLIN | POLLPRI;
    }
    if (forWrite)
        wanted.events |= POLLOUT;
    const int ready = poll(&wanted, 1, static_cast<int>(timeoutSeconds * 1000));
    if (ready < 0) {
        VESK_LOG_SYS_ERROR(wxS("BioWaitWithTimeout() - Error on select"));
        return false;
    }
    if (ready > 0)
        return true;  // an exceptional condition too: the next BIO call tells what
    if (timeoutSeconds == 0)
        return false;
    wxLogError(wxS("BioWaitWithTimeout() - Error on select: operation timed out."));
    ERR_raise_data(ERR_LIB_SYS, ETIMEDOUT, "%s", strerror(ETIMEDOUT));
    return false;
}

namespace {

const char* TraceName(BIO* bio) {
    return static_cast<const char*>(BIO_get_data(bio));
}

int lt_new(BIO* bio) {
    BIO_set_init(bio, 1);
    BIO_set_data(bio, nullptr);
    return 1;
}

int lt_free(BIO* bio) {
    if (bio == nullptr)
        return 0;
    free(BIO_get_data(bio));
    BIO_set_data(bio, nullptr);
    return 1;
}

long lt_ctrl(BIO* bio, int command, long, void* argument) {
    if (command != BIO_CTRL_SET)
        return 0;  // a flush too: every write is a line already
    free(BIO_get_data(bio));
    BIO_set_data(bio, strdup(static_cast<const char*>(argument)));
    return 1;
}

// One write is one trace line; the reported count leaves out the newline.
int lt_write(BIO* bio, const char* data, int length) {
    if (data == nullptr || TraceName(bio) == nullptr || length < 2)
        return 0;
    if (data[length - 1] == '\n')
        --length;
    LogTrace(TraceName(bio), "%.*s", length, data);
    return length;
}

int lt_puts(BIO* bio, const char* text) {
    return lt_write(bio, text, static_cast<int>(strlen(text)));
}

}  // namespace

BIO_METHOD* BIO_s_LogTrace() {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* made = BIO_meth_new(1025, "QXRpc::LogTrace");
        if (made != nullptr) {
            BIO_meth_set_write(made, lt_write);
            BIO_meth_set_puts(made, lt_puts);
            BIO_meth_set_ctrl(made, lt_ctrl);
            BIO_meth_set_create(made, lt_new);
            BIO_meth_set_destroy(made, lt_free);
        }
        return made;
    }();
    return method;
}

BIO* BIO_new_LogTrace(const char* traceName, bool buffered) {
    BIO* bio = BIO_new(BIO_s_LogTrace());
    if (bio == nullptr)
        return nullptr;
    if (BIO_ctrl(bio, BIO_CTRL_SET, 0, const_cast<char*>(traceName)) == 0) {
        BIO_free(bio);
        return nullptr;
    }
    if (!buffered)
        return bio;
    BIO* buffer = BIO_new(BIO_f_buffer());
    if (buffer == nullptr) {
        BIO_free(bio);
        return nullptr;
    }
    return BIO_push(buffer, bio);
}

long BioDumpCB(BIO* bio, int oper, const char* argp, int argi, long, long ret) {
    BIO* dump = reinterpret_cast<BIO*>(BIO_get_callback_arg(bio));
    if (dump == nullptr)
        return ret;
    const char* format;
    if (oper == (BIO_CB_READ | BIO_CB_RETURN))
        format = "read from %p [%p] (%d bytes => %ld (0x%lX))\n";
    else if (oper == (BIO_CB_WRITE | BIO_CB_RETURN))
        format = "write to %p [%p] (%d bytes => %ld (0x%lX))\n";
    else
        return ret;
    BIO_printf(dump, format, static_cast<void*>(bio), static_cast<const void*>(argp), argi, ret,
               static_cast<unsigned long>(ret));
    if (ret > 0)
        BIO_dump_indent(dump, argp, static_cast<int>(ret), 2);
    return ret;
}

}  // namespace VeskCore
