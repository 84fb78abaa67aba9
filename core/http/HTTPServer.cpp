#include "core/http/HTTPServer.h"

#include <netdb.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <wx/log.h>
#include <wx/mstream.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/common/BioStream.h"
#include "core/common/StreamUtil.h"
#include "core/common/StringUtil.h"
#include "core/http/OpenSslUtil.h"
#include "core/http/SSLContext.h"
#include "core/runtime/LogTrace.h"

namespace VeskCore {
namespace {

// The handshake waits at most this much of a step, whatever the time-out.
constexpr long kShortestHandshakeWait = 30;

wxString TrimmedRight(const wxString& text) {
    wxString copy(text);
    copy.Trim(true);
    return copy;
}

}  // namespace

CHTTPServer::CHTTPServer(CSSLContext* context) : CHTTP(context) {}

CHTTPServer::~CHTTPServer() = default;

// A dump of the traffic into a trace, only while that trace is on.
void CHTTPServer::HangDump(BIO* bio, const char* mask) {
    if (!wxLog::IsAllowedTraceMask(wxString::FromAscii(mask)))
        return;
    BIO_set_callback(bio, BioDumpCB);
    BIO_set_callback_arg(bio, reinterpret_cast<char*>(BIO_new_LogTrace(mask, false)));
}

bool CHTTPServer::Accept(int socket) {
    Disconnect();
    FreeBIO();
    m_bio = NewSocketBIO(socket, true);
    if (m_bio == nullptr) {
        wxLogError(wxS("CHTTPServer::Accept() - BIO_new_socket() failed, OpenSSL %.128s"),
                   OpenSSLError());
        return false;
    }
    HangDump(m_bio, "SocketData");
    BIO_socket_nbio(socket, 1);
    BIO* buffer = BIO_new(BIO_f_buffer());
    if (buffer == nullptr) {
        wxLogError(wxS("CHTTPServer::Accept() - BIO_new(BIO_f_buffer()) failed, OpenSSL %.128s"),
                   OpenSSLError());
        FreeBIO();
        return false;
    }
    HangDump(buffer, "HTTPData");
    m_bio = BIO_push(buffer, m_bio);
    return true;
}

std::string CHTTPServer::PeerText() const {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    char host[1025] = {};
    char service[32] = {};
    const int fd = static_cast<int>(BIO_get_fd(m_bio, nullptr));
    if (fd < 0 || getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        getnameinfo(reinterpret_cast<sockaddr*>(&address), length, host, sizeof host, service,
                    sizeof service, NI_NUMERICHOST | NI_NUMERICSERV) != 0 ||
        host[0] == '\0' || service[0] == '\0')
        return std::string();
    return std::string(host) + ":" + service;
}

bool CHTTPServer::AcceptSSL(X509* certificate, EVP_PKEY* key, X509* clientCA, bool* timedOut) {
    if (timedOut != nullptr)
        *timedOut = false;
    if (m_bio == nullptr)
        return false;
    const std::string peer = PeerText();
    const wxString peerText = wxString::FromUTF8(peer);
    if (m_trace)
        LogTrace(s_Trace, "AcceptSSL(%s)", peer.c_str());
    BIO* ssl = BIO_new_ssl(reinterpret_cast<SSL_CTX*>(m_context), 0);
    if (ssl == nullptr) {
        wxLogError(wxS("CHTTPServer::AcceptSSL(%s) - BIO_new_ssl() failed, OpenSSL %.128s"),
                   peerText, OpenSSLError());
        Disconnect();
        return false;
    }
    SSL* session = nullptr;
    BIO_get_ssl(ssl, &session);
    if (session == nullptr) {
        wxLogError(wxS("CHTTPServer::AcceptSSL(%s) - BIO_get_ssl() failed, OpenSSL %.128s"),
                   peerText, OpenSSLError());
        BIO_free(ssl);
        Disconnect();
        return false;
    }
    if (certificate != nullptr && key != nullptr &&
        (SSL_use_certificate(session, certificate) != 1 || SSL_use_PrivateKey(session, key) != 1)) {
        wxLogError(
            wxS("CHTTPServer::AcceptSSL(%s) - error setting certificate/key, OpenSSL %.128s"),
            peerText, OpenSSLError());
        BIO_free(ssl);
        Disconnect();
        return false;
    }
    if (clientCA != nullptr)
        SSL_add_client_CA(session, clientCA);
    // buffer, TLS, socket: the buffer stays on top.
    BIO* below = BIO_pop(m_bio);
    BIO_push(ssl, below);
    BIO_push(m_bio, ssl);
    return Handshake(ssl, peer, timedOut);
}

bool CHTTPServer::Handshake(BIO* ssl, const std::string& peer, bool* timedOut) {
    const wxString peerText = wxString::FromUTF8(peer);
    const long wait = std::max<long>(m_timeout / 2, kShortestHandshakeWait);
    int result;
    for (;;) {
        ERR_clear_error();
        result = static_cast<int>(BIO_do_handshake(ssl));
        if (result > 0) {
            if (m_trace) {
                SSL* session = nullptr;
                BIO_get_ssl(ssl, &session);
                char description[256] = {};
                SSL_CIPHER_description(SSL_get_current_cipher(session), description,
                                       sizeof description);
                LogTrace(s_Trace, "Handshake completed: %.256s",
                         TrimmedRight(wxString::FromUTF8(description)).utf8_string().c_str());
            }
            return true;
        }
        bool retryRead = false, retryWrite = false;
        if (result == 0 || !BioShouldRetry(ssl, retryRead, retryWrite))
            break;
        if (!BioWaitWithTimeout(m_bio, retryRead, retryWrite, wait)) {
            wxLogError(wxS("CHTTPServer::AcceptSSL(%s) - timed out while awaiting data from peer."),
                       peerText);
            Disconnect();
            if (timedOut != nullptr)
                *timedOut = true;
            return false;
        }
    }
    ReportHandshakeFailure(ssl, result, errno, peer, timedOut);
    Disconnect();
    return false;
}

void CHTTPServer::ReportHandshakeFailure(BIO* ssl, int result, int savedErrno,
                                         const std::string& peer, bool* timedOut) {
    const wxString peerText = wxString::FromUTF8(peer);
    SSL* session = nullptr;
    BIO_get_ssl(ssl, &session);
    const int error = session != nullptr ? SSL_get_error(session, result) : SSL_ERROR_SSL;
    // OpenSSL 3 reports a peer gone mid-handshake as a clean close (with
    // SSL_OP_IGNORE_UNEXPECTED_EOF) or as "unexpected eof while reading":
    // both are the peer closing, as an empty SYSCALL error was before.
    const bool peerEof = error == SSL_ERROR_ZERO_RETURN ||
                         (error == SSL_ERROR_SSL &&
                          ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING);
    if (peerEof) {
        ERR_clear_error();
        result = 0;
    }
    if (peerEof || (error == SSL_ERROR_SYSCALL && ERR_peek_error() == 0)) {
        if (result != 0) {
            wxLogError(wxS("CHTTPServer::AcceptSSL(%s) - BIO_do_handshake() failed, %.128s"),
                       peerText, ErrnoToString(savedErrno));
        } else {
            wxLogError(wxS("CHTTPServer::AcceptSSL(%s) - BIO_do_handshake() failed - peer closed "
                           "connection."),
                       peerText);
            if (timedOut != nullptr)
                *timedOut = true;
        }
        return;
    }
    while (ERR_peek_error() != 0)
        wxLogError(wxS("CHTTPServer::AcceptSSL(%s) - BIO_do_handshake() failed, OpenSSL %.128s"),
                   peerText, OpenSSLError());
}

bool CHTTPServer::ReadCommand() {
    wxString line;
    if (!ReadOneLine(line))
        return false;
    if (line.empty()) {
        if (m_trace)
            LogTrace(s_Trace,
                     "ReadCommand() - connection closed by peer (normal HTTP session "
                     "shutdown).");
        return false;
    }
    line.Trim(true);
    static const wxString kVersion = wxS("HTTP/1.1");
    const bool versioned = line.length() > 11 && line.EndsWith(kVersion);
    const wxString request = versioned ? line.Left(line.length() - kVersion.length() - 1) : line;
    const size_t blank = request.find(' ');
    if (!versioned || blank == wxString::npos) {
        wxLogError(wxS("CHTTPServer::ReadCommand() - badly formed HTTP command received: %.128s"),
                   line);
        return false;
    }
    m_receivedCommand = request.Left(blank);
    m_receivedCommandURL = TrimmedRight(request.Mid(blank + 1));
    return true;
}

bool CHTTPServer::ShouldCloseConnection() const {
    return GetReceivedHeader(wxString::FromAscii(m_HeaderConnection))
        .IsSameAs(wxString::FromAscii(m_ConnectionClose), false);
}

bool CHTTPServer::Respond(int status, const char* text, wxInputStream& content) {
    const wxString line = wxString::Format(wxS("HTTP/1.1 %d %.256s\r\n"), status,
                                           wxString::FromUTF8(text != nullptr ? text : ""));
    if (m_trace)
        LogTrace(s_Trace, "Respond() - sending status line of '%.*s'",
                 static_cast<int>(line.utf8_string().size() - 2), line.utf8_string().c_str());
    if (!Write(line, false))
        return false;
    const long long size = StreamSize(content);
    if (size == 0)
        RemoveHTTPHeader(wxString::FromAscii(m_HeaderContentEncoding));
    if (!WriteHeaders(wxString(), static_cast<unsigned long>(size), size == 0))
        return false;
    return size > 0 ? WriteContent(content) : true;
}

bool CHTTPServer::Respond(int status, const wxString& text, wxInputStream& content) {
    return Respond(status, text.utf8_string().c_str(), content);
}

bool CHTTPServer::Respond(int status, const char* text, wxInputStream* content) {
    if (content != nullptr)
        return Respond(status, text, *content);
    wxMemoryInputStream empty(nullptr, 0);
    return Respond(status, text, empty);
}

bool CHTTPServer::Respond(int status, const char* text) {
    return Respond(status, text, static_cast<wxInputStream*>(nullptr));
}

bool CHTTPServer::Respond(int status, const wxString& text) {
    return Respond(status, text.utf8_string().c_str());
}

}  // namespace VeskCore
