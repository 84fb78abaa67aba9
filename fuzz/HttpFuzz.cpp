// What comes into the HTTP client from outside, one target per build:
// VESK_FUZZ_URL: URLs as scripts give them (one that splits must have a path
// that starts with "/" and a known form of host); VESK_FUZZ_CONTENT: a body
// whose first byte picks its Content-Encoding, so that the decoders see any
// data; otherwise: what a server sends, status lines, header blocks and
// bodies, as many keep-alive replies as the bytes hold, through a socket pair.
#include <sys/socket.h>
#include <unistd.h>
#include <wx/log.h>
#include <wx/stream.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/http/HTTPClient.h"

namespace {

using VeskCore::CHTTP;

// Formats every message, as a real target would, and drops it.
class Discard : public wxLog {
  protected:
    void DoLogRecord(wxLogLevel, const wxString&, const wxLogRecordInfo&) override {}
};

#ifdef VESK_FUZZ_URL
void Take(const std::string& url) {
    wxString scheme, host, path;
    CHTTP::_ipMethod_e method;
    int port = 0;
    if (CHTTP::SplitURL(url.c_str(), scheme, method, host, port, path) &&
        (method == CHTTP::ipUnknown || path.empty() || path[0] != '/'))
        abort();
}
#else
void Take(std::string bytes) {
#ifdef VESK_FUZZ_CONTENT
    static const char* const kEncodings[] = {"gzip", "deflate", "identity", "GZip", "br"};
    if (bytes.empty())
        return;
    bytes = "Content-Length: " + std::to_string(bytes.size() - 1) +
            "\r\nContent-Encoding: " + kEncodings[static_cast<unsigned char>(bytes[0]) % 5] +
            "\r\n\r\n" + bytes.substr(1);
#endif
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        return;
    // What the pair can't hold is cut off: the peer closed early.
    send(fds[1], bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    close(fds[1]);
    VeskCore::CHTTPClient client(nullptr, true);
    wxCountingOutputStream out;  // a small compressed body may inflate a lot
    int status = 200;
    wxString text;
    if (!client.Attach(fds[0], wxS("peer"), 1, true))
        return;
#ifdef VESK_FUZZ_CONTENT
    if (client.ReadHeaders())
        client.ReadContent(out, status, text);
#else
    for (int reply = 0; reply < 8 && client.ReadStatus() && client.ReadHeaders() &&
                        client.ReadContent(out, status, text) && status == 200;
         ++reply) {
    }
#endif
}
#endif

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    wxLog::SetActiveTarget(new Discard);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Take(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
