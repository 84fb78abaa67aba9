// The serving side of HTTP(S) on one accepted socket. A script accepts a
// connection itself (net.accept), hands the descriptor to Accept, makes it
// TLS with AcceptSSL if it wants, and loops over ReadCommand, ReadHeaders,
// ReadContent and Respond until ShouldCloseConnection or the peer goes.
// There is no listening, routing or threading here: the script drives it.
//
// Only HTTP/1.1 request lines are taken. Responses carry Content-Length and
// the caller's headers; Connection and Content-Type are the caller's to add.
//
// Thread safety: an object belongs to one thread at a time; the TLS context
// may be shared.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <wx/stream.h>
#include <wx/string.h>

#include "core/http/HTTP.h"

namespace VeskCore {

class VESK_EXPORT CHTTPServer : public CHTTP {
  public:
    explicit CHTTPServer(CSSLContext* context);
    ~CHTTPServer() override;

    // Takes over `socket` (closed with the object's chain), after ending any
    // connection the object had. False (logged) when no chain can be made.
    bool Accept(int socket);
    // Turns the connection into TLS with the context's credentials, or
    // `certificate` and `key` for this one connection when both are given,
    // asking the client for a certificate from `clientCA` when given. Waits
    // at most half the socket time-out (at least 30 s) at each step. False,
    // logged and disconnected, on failure; `*timedOut` (may be null) tells a
    // peer that never finished or simply went from one that failed the
    // handshake.
    bool AcceptSSL(X509* certificate, EVP_PKEY* key, X509* clientCA, bool* timedOut);
    // Reads "<method> <url> HTTP/1.1". False when the peer closed (no log
    // line) or the line is badly formed (logged; a version other than 1.1
    // is).
    bool ReadCommand();
    const wxString& GetReceivedCommand() const { return m_receivedCommand; }
    const wxString& GetReceivedCommandURL() const { return m_receivedCommandURL; }
    // Whether the request's Connection header is "close" (in any case).
    bool ShouldCloseConnection() const;

    // Sends the status line, the headers with Content-Length (the size of
    // `content`, which must be known: a stream of unknown size sends no
    // body) and the body. An empty body sends no Content-Encoding.
    bool Respond(int status, const char* text, wxInputStream& content);
    bool Respond(int status, const wxString& text, wxInputStream& content);
    bool Respond(int status, const char* text, wxInputStream* content);
    bool Respond(int status, const char* text);
    bool Respond(int status, const wxString& text);

  private:
    std::string PeerText() const;
    bool Handshake(BIO* ssl, const std::string& peer, bool* timedOut);
    void ReportHandshakeFailure(BIO* ssl, int result, int savedErrno, const std::string& peer,
                                bool* timedOut);
    void HangDump(BIO* bio, const char* mask);

    wxString m_receivedCommand;
    wxString m_receivedCommandURL;
};

}  // namespace VeskCore
