// The outgoing side of HTTP(S): one request and one response at a time,
// the connection kept for the next request to the same host and port. A
// client resolves and connects, may send cleartext bytes ahead of TLS on
// every new connection, and builds the chain buffer, TLS (for https), socket;
// the TLS handshake runs in the first flush. Verification is what the
// context asks for; no host name is checked. Redirects are not followed and
// 1xx replies are taken as the reply: the caller reads GetReceivedStatus().
//
// Failures are a false result. With `logErrors` false the connect-time
// failures are silent; the messages of the message layer and of the BIO
// streams are logged regardless. After a failed connect, OpenSSL's error
// queue tells the host and port (OpenSSLError()).
//
// Ownership: the preamble stream is owned; the TLS context is not.
// Thread safety: an object belongs to one thread at a time; a context may be
// shared by clients on several threads.
#pragma once

#include <wx/stream.h>
#include <wx/string.h>

#include <memory>
#include <string>

#include "core/common/Export.h"
#include "core/http/HTTP.h"

struct addrinfo;

namespace VeskCore {

class VESK_EXPORT CHTTPClient : public CHTTP {
  public:
    // Every client sends Accept-Encoding "deflate, gzip" ("deflate" where
    // zlib can't read gzip).
    CHTTPClient(CSSLContext* context, bool logErrors);
    // A client that logs its failures: the one scripts make.
    explicit CHTTPClient(CSSLContext* context) : CHTTPClient(context, true) {}
    // Frees the chain without a TLS shutdown.
    ~CHTTPClient() override;

    // Bytes sent ahead of everything else on each new connection; takes
    // ownership, replaces (and deletes) the one held; null for none. The
    // stream must be seekable: it is rewound for every connection.
    void SetCleartextPreamble(wxInputStream* stream);

    // Connects to `host` (a name or an address without brackets) on `port`,
    // trying the resolver's addresses in order with the system's own connect
    // time-out. A chain to the same host and port is reused unchecked.
    bool Connect(const wxString& host, int port);
    // Builds the chain on the connected `socket`, after freeing the one held:
    // non-blocking and TCP_NODELAY from here on, the preamble sent, TLS when
    // the last URL's scheme was https. With `closeSocket` the chain closes the socket when
    // freed. When no socket BIO can be made the socket is closed whatever
    // `closeSocket` says; a later failure disconnects.
    bool Attach(int socket, const wxString& host, int port, bool closeSocket);
    // Frees the chain, after Disconnect() when `disconnect`.
    bool Detach(bool disconnect);

    // One request: POST of `in` (whose size is its Content-Length) or GET
    // without it, or with `tunnel` a CONNECT on the connection that stands.
    // The decoded body goes to `out` (none for a tunnel). True when a reply
    // was read, whatever its status; false also for an unknown
    // Content-Encoding (body unread). Disconnects afterwards if asked. The
    // scheme (http or https) decides TLS for this and the next chain.
    bool Request(const wxString& url, wxInputStream* in, wxOutputStream& out, bool disconnect,
                 bool tunnel);
    bool Post(const wxString& url, wxInputStream& in, wxOutputStream& out, bool disconnect) {
        return Request(url, &in, out, disconnect, false);
    }
    bool Get(const wxString& url, wxOutputStream& out, bool disconnect) {
        return Request(url, nullptr, out, disconnect, false);
    }
    // Asks the proxy on the connection that stands for a tunnel to the URL's
    // host and port. Non-empty `credentials` ("user:password") are sent as
    // Basic Authorization and Proxy-Authorization, and stay in the outgoing
    // headers. The proxy's answer is GetReceivedStatus(). Then: Detach(false)
    // and Attach again with the same socket to build the URL's chain on it.
    bool Redirect(const wxString& url, const wxString& credentials);

    // Reads "HTTP/1.x <code> <reason>"; false (and code 0, unless it was
    // read) for a close, another version, or a line without both blanks.
    bool ReadStatus();
    int GetReceivedStatus() const { return m_receivedStatus; }
    const wxString& GetReceivedStatusString() const { return m_receivedStatusString; }

  protected:
    bool m_useTLS = false;
    bool m_logErrors;
    wxString m_connectedHost;
    int m_connectedPort = 0;
    std::unique_ptr<wxInputStream> m_cleartextPreamble;
    int m_receivedStatus = 0;
    wxString m_receivedStatusString;

  private:
    addrinfo* Resolve(const wxString& host, int port);
    wxString AddressText(const addrinfo& address, const wxString& host);
    int ConnectTo(const addrinfo& address, const wxString& host, int port);
    bool SendPreamble();
    bool PushTls();
    bool PushBuffer();
    void LogOpenSslFailure(const char* what);
    bool SendRequest(const wxString& command, const wxString& host, wxInputStream* in,
                     unsigned long length);
    bool ReadReply(wxOutputStream& out, bool tunnel);
    bool ParseStatus(const std::string& line);
};

}  // namespace VeskCore
