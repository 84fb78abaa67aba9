#include "core/http/HTTPClient.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>
#include <wx/log.h>
#include <wx/mstream.h>
#include <wx/zstream.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/common/Base64.h"
#include "core/common/BioOutputStream.h"
#include "core/common/LogSysError.h"
#include "core/common/StreamUtil.h"
#include "core/http/OpenSslUtil.h"
#include "core/http/SSLContext.h"
#include "core/runtime/LogTrace.h"

namespace VeskCore {
namespace {

struct AddrInfoFree {
    void operator()(addrinfo* addresses) const { freeaddrinfo(addresses); }
};
using AddrInfoPtr = std::unique_ptr<addrinfo, AddrInfoFree>;

wxString Ascii(const char* text) {
    return wxString::FromAscii(text);
}

// An IPv6 address stands in brackets wherever it meets a port in text.
wxString HostText(const wxString& host) {
    return host.Find(':') == wxNOT_FOUND ? host : wxS("[") + host + wxS("]");
}

}  // namespace

CHTTPClient::CHTTPClient(CSSLContext* context, bool logErrors)
    : CHTTP(context), m_logErrors(logErrors) {
    wxString accepted = Ascii(m_EncodingDeflate);
    if (wxZlibInputStream::CanHandleGZip())
        accepted += wxS(", ") + Ascii(m_EncodingGzip);
    AddHTTPHeader(Ascii(m_HeaderAcceptEncoding), accepted);
}

CHTTPClient::~CHTTPClient() = default;

void CHTTPClient::SetCleartextPreamble(wxInputStream* stream) {
    if (stream != m_cleartextPreamble.get())
        m_cleartextPreamble.reset(stream);
}

bool CHTTPClient::Connect(const wxString& host, int port) {
    if (m_bio != nullptr && host == m_connectedHost && port == m_connectedPort)
        return true;  // reused without a check of its health
    Detach(true);
    AddrInfoPtr addresses(Resolve(host, port));
    int socket = -1;
    for (const addrinfo* address = addresses.get(); address != nullptr && socket < 0;
         address = address->ai_next)
        socket = ConnectTo(*address, host, port);
    addresses.reset();
    return socket >= 0 && Attach(socket, host, port, true);
}

addrinfo* CHTTPClient::Resolve(const wxString& host, int port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* addresses = nullptr;
    const int code =
        getaddrinfo(host.utf8_string().c_str(), std::to_string(port).c_str(), &hints, &addresses);
    if (code == 0)
        return addresses;
    if (m_logErrors) {
        // A resolver failure has no errno of its own; EAI_SYSTEM has.
        const int reason = code == EAI_SYSTEM ? errno : EHOSTUNREACH;
        ERR_raise_data(ERR_LIB_SYS, reason, "%s host='%s' port='%d'", gai_strerror(code),
                       host.utf8_string().c_str(), port);
        wxLogError(wxS("getaddrinfo(%.128s) failed: %.128s"), host,
                   wxString::FromUTF8(gai_strerror(code)));
    }
    return nullptr;
}

wxString CHTTPClient::AddressText(const addrinfo& address, const wxString& host) {
    char text[1025];
    if (getnameinfo(address.ai_addr, address.ai_addrlen, text, sizeof text, nullptr, 0,
                    NI_NUMERICHOST) == 0)
        return HostText(wxString::FromUTF8(text));
    if (m_logErrors)
        VESK_LOG_SYS_ERROR(wxS("getnameinfo() failed"));
    return HostText(host);
}

// One address: a connected, close-on-exec socket, or -1 (reported).
int CHTTPClient::ConnectTo(const addrinfo& address, const wxString& host, int port) {
    const wxString text = AddressText(address, host);
    if (m_trace)
        LogTrace(s_Trace, "Connect() - attempting to connect to %s:%d", text.utf8_string().c_str(),
                 port);
    const int fd =
        socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC, address.ai_protocol);
    if (fd < 0) {
        const int code = errno;
        if (m_logErrors) {
            ERR_raise(ERR_LIB_SYS, code);
            VESK_LOG_SYS_ERROR(code, wxS("socket(%d,%d,%d) failed"), address.ai_family,
                               address.ai_socktype, address.ai_protocol);
        }
        return -1;
    }
    // Blocking, with the system's own time-out: a deadline would go here.
    if (connect(fd, address.ai_addr, address.ai_addrlen) == 0)
        return fd;
    const int code = errno;
    close(fd);
    if (m_logErrors) {
        ERR_raise_data(ERR_LIB_SYS, code, "%s host='%s' port='%d'", strerror(code),
                       host.utf8_string().c_str(), port);
        VESK_LOG_SYS_ERROR(code, wxS("couldn't connect to %s:%d"), text, port);
    }
    return -1;
}

bool CHTTPClient::Attach(int socket, const wxString& host, int port, bool closeSocket) {
    Detach(true);
    BIO_socket_nbio(socket, 1);
    // A request written in two pieces would otherwise wait for the delayed
    // ACK of the first. Not a TCP socket: nothing to set, nothing lost.
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    m_bio = NewSocketBIO(socket, closeSocket);
    if (m_bio == nullptr) {
        LogOpenSslFailure("BIO_new_socket()");
        close(socket);
        return false;
    }
    if (!SendPreamble() || (m_useTLS && !PushTls()) || !PushBuffer()) {
        Disconnect();
        return false;
    }
    m_connectedHost = host;
    m_connectedPort = port;
    return true;
}

bool CHTTPClient::Detach(bool disconnect) {
    if (disconnect)
        Disconnect();
    return FreeBIO();
}

// On the bare socket: ahead of any TLS byte.
bool CHTTPClient::SendPreamble() {
    if (!m_cleartextPreamble)
        return true;
    m_cleartextPreamble->SeekI(0);
    if (m_trace)
        LogTrace(s_Trace, "Connect() - sending cleartext preamble data to peer.");
    CBioOutputStream out(m_bio, m_timeout);
    return DoWrite(*m_cleartextPreamble, out, true);
}

bool CHTTPClient::PushTls() {
    BIO* tls = BIO_new(BIO_f_ssl());
    if (tls == nullptr) {
        LogOpenSslFailure("BIO_new(BIO_f_ssl())");
        return false;
    }
    SSL* ssl = SSL_new(m_context != nullptr ? m_context->handle() : nullptr);
    if (ssl == nullptr) {
        BIO_free(tls);
        LogOpenSslFailure("SSL_new()");
        return false;
    }
    SSL_set_connect_state(ssl);
    BIO_set_ssl(tls, ssl, BIO_CLOSE);
    m_bio = BIO_push(tls, m_bio);
    return true;
}

// The command line and headers of a message leave in one flush.
bool CHTTPClient::PushBuffer() {
    BIO* buffer = BIO_new(BIO_f_buffer());
    if (buffer == nullptr) {
        LogOpenSslFailure("BIO_new(BIO_f_buffer())");
        return false;
    }
    m_bio = BIO_push(buffer, m_bio);
    return true;
}

void CHTTPClient::LogOpenSslFailure(const char* what) {
    if (m_logErrors)
        wxLogError(wxS("CHTTPClient::Connect() - %s failed, OpenSSL %.128s"), Ascii(what),
                   OpenSSLError());
}

bool CHTTPClient::Request(const wxString& url, wxInputStream* in, wxOutputStream& out,
                          bool disconnect, bool tunnel) {
    m_receivedContentLength = 0;
    wxString scheme, host, path;
    _ipMethod_e method;
    int port;
    if (!SplitURL(url.utf8_string().c_str(), scheme, method, host, port, path))
        return false;
    if (scheme != wxS("http") && scheme != wxS("https")) {
        if (m_logErrors)
            wxLogError(wxS("CHTTPClient::Request() - invalid scheme in URL %.128s"), url);
        return false;
    }
    m_useTLS = scheme == wxS("https");
    const unsigned long length = in != nullptr ? static_cast<unsigned long>(StreamSize(*in)) : 0;
    wxString command;
    if (tunnel) {
        command = wxS("CONNECT ") + HostText(host) + wxString::Format(wxS(":%d"), port);
    } else {
        if (!Connect(host, port))
            return false;
        command = (in != nullptr ? wxS("POST ") : wxS("GET ")) + path;
    }
    if (!SendRequest(command, HostText(host), in, length) || !ReadReply(out, tunnel))
        return false;
    return disconnect ? Disconnect() : true;
}

bool CHTTPClient::SendRequest(const wxString& command, const wxString& host, wxInputStream* in,
                              unsigned long length) {
    if (m_trace)
        LogTrace(s_Trace, "Request() - sending command <%s>", command.utf8_string().c_str());
    // Without a body the headers' flush sends the message; with one, the
    // body's does.
    if (!Write(command + wxS(" HTTP/1.1\r\n"), false) || !WriteHeaders(host, length, in == nullptr))
        return false;
    return in == nullptr || WriteContent(*in);
}

bool CHTTPClient::ReadReply(wxOutputStream& out, bool tunnel) {
    if (!ReadStatus() || !ReadHeaders())
        return false;
    if (tunnel)
        return true;  // the tunnel's body, if any, is the next protocol's
    int status = 0;
    wxString text;
    return ReadContent(out, status, text) && status == 200;
}

bool CHTTPClient::Redirect(const wxString& url, const wxString& credentials) {
    if (!credentials.empty()) {
        const wxString value = wxS("Basic ") + toBase64String(credentials.utf8_string(), false);
        AddHTTPHeader(Ascii(m_HeaderAuthorization), value);
        AddHTTPHeader(Ascii(m_HeaderProxyAuthorization), value);
    }
    wxMemoryOutputStream scratch;
    return Request(url, nullptr, scratch, false, true);
}

bool CHTTPClient::ReadStatus() {
    m_receivedStatus = 0;
    m_receivedStatusString.clear();
    wxString line;
    if (!ReadOneLine(line))
        return false;
    if (line.empty()) {
        if (m_logErrors)
            wxLogError(
                wxS("CHTTPClient::ReadStatus() - connection closed before status line was "
                    "received."));
        return false;
    }
    if (ParseStatus(line.utf8_string()))
        return true;
    if (m_logErrors)
        wxLogError(wxS("CHTTPClient::ReadStatus() - unexpected HTTP status reply received: %.128s"),
                   line);
    return false;
}

// "HTTP/1.x <code> <reason>": a line without the blank behind the code fails,
// though the code is then already taken.
bool CHTTPClient::ParseStatus(const std::string& line) {
    if (strncasecmp(line.c_str(), "HTTP/1.", 7) != 0)
        return false;
    const size_t first = line.find(' ');
    if (first == std::string::npos)
        return false;
    m_receivedStatus = atoi(line.c_str() + first + 1);
    const size_t second = line.find(' ', first + 1);
    if (second == std::string::npos)
        return false;
    m_receivedStatusString = wxString::FromUTF8(line.substr(second + 1)).Trim(true);
    return true;
}

}  // namespace VeskCore
