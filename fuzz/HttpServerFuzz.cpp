// What a client sends to the server: request lines, header blocks and bodies,
// as many keep-alive requests as the bytes hold. The server reads them through
// its usual buffer BIO from memory instead of a socket, and answers each one,
// gzip or deflate as the request asks, into a sink that checks the framing.
#include <openssl/bio.h>
#include <wx/log.h>
#include <wx/mstream.h>
#include <wx/stream.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "core/http/HTTPServer.h"

namespace {

// Formats every message, as a real target would, and drops it.
class Discard : public wxLog {
  protected:
    void DoLogRecord(wxLogLevel, const wxString&, const wxLogRecordInfo&) override {}
};

// The peer behind the buffer BIO: reads hand out the input a few bytes at a
// time (so that lines reach the buffer in pieces) and then end as a closed
// socket does, with 0 and no retry; writes are kept for the checks.
struct Peer {
    std::string input;
    size_t offset = 0;
    size_t piece = 1;
    std::string output;
};

int PeerRead(BIO* bio, char* out, int size) {
    Peer* peer = static_cast<Peer*>(BIO_get_data(bio));
    const size_t count =
        std::min({static_cast<size_t>(size), peer->piece, peer->input.size() - peer->offset});
    memcpy(out, peer->input.data() + peer->offset, count);
    peer->offset += count;
    return static_cast<int>(count);
}

int PeerWrite(BIO* bio, const char* in, int size) {
    static_cast<Peer*>(BIO_get_data(bio))->output.append(in, static_cast<size_t>(size));
    return size;
}

long PeerCtrl(BIO*, int command, long, void*) {
    // Any other answer, BIO_get_fd's included, is "no such thing": not -1,
    // so the chain counts as connected.
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

BIO_METHOD* PeerMethod() {
    static BIO_METHOD* method = [] {
        BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "fuzz peer");
        BIO_meth_set_read(made, PeerRead);
        BIO_meth_set_write(made, PeerWrite);
        BIO_meth_set_ctrl(made, PeerCtrl);
        BIO_meth_set_create(made, [](BIO* bio) {
            BIO_set_init(bio, 1);
            return 1;
        });
        return made;
    }();
    return method;
}

class MemoryServer : public VeskCore::CHTTPServer {
  public:
    explicit MemoryServer(Peer& peer) : CHTTPServer(nullptr) {
        BIO* bottom = BIO_new(PeerMethod());
        BIO_set_data(bottom, &peer);
        m_bio = BIO_push(BIO_new(BIO_f_buffer()), bottom);
    }
};

// The answer written since `from` must be one status line and a header block
// whose Content-Length is the size of what follows it.
void CheckFraming(const std::string& output, size_t from) {
    const std::string answer = output.substr(from);
    const size_t end = answer.find("\r\n\r\n");
    const std::string length = "\r\nContent-Length: ";
    const size_t at = answer.find(length);
    if (answer.compare(0, 13, "HTTP/1.1 200 ") != 0 || end == std::string::npos ||
        at == std::string::npos || at > end)
        abort();
    if (strtoul(answer.c_str() + at + length.size(), nullptr, 10) != answer.size() - end - 4)
        abort();
}

void Take(const std::string& bytes) {
    if (bytes.empty())
        return;
    Peer peer;
    peer.input = bytes;
    peer.piece = 1 + static_cast<unsigned char>(bytes.back()) % 61;
    MemoryServer server(peer);
    for (int request = 0; request < 8 && server.ReadCommand(); ++request) {
        const wxString& method = server.GetReceivedCommand();
        if (method.Find(' ') != wxNOT_FOUND)
            abort();
        if (!server.ReadHeaders())
            break;
        wxCountingOutputStream ignored;  // a small compressed body may inflate a lot
        int status = 0;
        wxString text;
        if (!server.ReadContent(ignored, status, text))
            break;
        // The answer echoes the request line, encoded as the client asks.
        const std::string echo = (method + wxS(" ") + server.GetReceivedCommandURL()).utf8_string();
        wxMemoryOutputStream packed;
        std::unique_ptr<wxOutputStream> filter(server.AttachResponseContentFilters(packed));
        if (filter) {
            filter->WriteAll(echo.data(), echo.size());
            filter->Close();
            filter.reset();
        } else {
            packed.WriteAll(echo.data(), echo.size());
        }
        wxMemoryInputStream body(packed);
        const size_t from = peer.output.size();
        const bool sent = server.Respond(200, "OK", body);
        server.RemoveHTTPHeader(wxS("Content-Encoding"));
        if (!sent)
            abort();  // the sink takes everything
        CheckFraming(peer.output, from);
        if (server.ShouldCloseConnection())
            break;
    }
    server.Disconnect();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    wxLog::SetActiveTarget(new Discard);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Take(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
