#include "core/http/HTTP.h"

#include <openssl/err.h>
#include <sys/socket.h>
#include <wx/arrstr.h>
#include <wx/log.h>
#include <wx/mstream.h>
#include <wx/zstream.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/common/BioInputStream.h"
#include "core/common/BioOutputStream.h"
#include "core/common/BioStream.h"
#include "core/common/StreamUtil.h"
#include "core/common/StringUtil.h"
#include "core/common/UrlCodec.h"
#include "core/http/OpenSslUtil.h"
#include "core/http/SSLContext.h"
#include "core/runtime/LogTrace.h"

namespace VeskCore {

const char* const CHTTP::s_Trace = "HTTP";
const char* const CHTTP::m_ConnectionClose = "close";
const char* const CHTTP::m_EncodingDeflate = "deflate";
const char* const CHTTP::m_EncodingGzip = "gzip";
const char* const CHTTP::m_EncodingIdentity = "identity";
const char* const CHTTP::m_HeaderAcceptEncoding = "Accept-Encoding";
const char* const CHTTP::m_HeaderConnection = "Connection";
const char* const CHTTP::m_HeaderContentEncoding = "Content-Encoding";
const char* const CHTTP::m_HeaderContentLength = "Content-Length";
const char* const CHTTP::m_HeaderContentType = "Content-Type";
const char* const CHTTP::m_HeaderVeskUserdataPrefix = "X-VESK-Userdata-";
const char* const CHTTP::m_HeaderTransferEncoding = "Transfer-Encoding";
const char* const CHTTP::m_HeaderUserAgent = "User-Agent";
const char* const CHTTP::m_HeaderAuthorization = "Authorization";
const char* const CHTTP::m_HeaderProxyAuthorization = "Proxy-Authorization";

namespace {

constexpr size_t kLineLimit = 32768;
constexpr int kMinimumTimeout = 60;
constexpr int kShutdownRounds = 5;
constexpr long kShutdownWaitSeconds = 5;

wxString Ascii(const char* text) {
    return wxString::FromAscii(text);
}

// The wire's text is UTF-8; a line that isn't keeps its bytes as Latin-1
// characters rather than becoming empty, which would read as a closed peer.
wxString FromWire(const std::string& bytes) {
    const wxString text = wxString::FromUTF8(bytes.data(), bytes.size());
    if (text.empty() && !bytes.empty())
        return wxString::From8BitData(bytes.data(), bytes.size());
    return text;
}

bool BadUrl(const std::string& url) {
    wxLogWarning(wxS("SplitURL() - badly-formed URL supplied: <%.256s>"), FromWire(url));
    return false;
}

// Cuts the port off `host` (the text between "://" and the path) and says
// how the host is written. False for a "[" without "]".
bool SplitHostPort(std::string& host, CHTTP::_ipMethod_e& method, int& port) {
    if (host[0] == '[') {
        const size_t close = host.rfind(']');
        if (close == std::string::npos)
            return false;
        if (host.size() > close + 2 && host[close + 1] == ':')
            port = atoi(host.c_str() + close + 2);
        host = host.substr(1, close - 1);
        method = CHTTP::ipBracketedV6;
        return true;
    }
    method = host[0] >= '0' && host[0] <= '9' ? CHTTP::ipNumericV4 : CHTTP::ipHostName;
    const size_t colon = host.find(':');
    if (colon != std::string::npos) {
        port = atoi(host.c_str() + colon + 1);
        host.resize(colon);
    }
    return true;
}

int DefaultPort(const wxString& scheme) {
    static const struct {
        const char* scheme;
        int port;
    } kDefaults[] = {{"http", 80}, {"https", 443}, {"ftp", 21}, {"vkm", 4120}};
    for (const auto& entry : kDefaults)
        if (scheme == Ascii(entry.scheme))
            return entry.port;
    return 0;
}

int TrimmedLength(const std::string& line) {
    size_t length = line.size();
    for (int cut = 0;
         cut < 2 && length > 0 && isspace(static_cast<unsigned char>(line[length - 1])); ++cut)
        --length;
    return static_cast<int>(length);
}

// Whether a TLS shutdown that returned -1 may go on: after a wait for what
// it asks, or when a system error left a code (taken off the queue).
bool ShutdownMayGoOn(BIO* bio, SSL* ssl, int result) {
    switch (SSL_get_error(ssl, result)) {
        case SSL_ERROR_WANT_READ:
            return BioWaitWithTimeout(bio, true, false, kShutdownWaitSeconds);
        case SSL_ERROR_WANT_WRITE:
            return BioWaitWithTimeout(bio, false, true, kShutdownWaitSeconds);
        case SSL_ERROR_SYSCALL:
            return ERR_get_error() != 0;
        default:
            return false;
    }
}

// A finished connection answers the extra calls at once.
void ShutdownTls(BIO* bio, SSL* ssl) {
    for (int round = 0; round < kShutdownRounds; ++round) {
        int result = SSL_shutdown(ssl);
        if (result == 0)
            result = SSL_shutdown(ssl);
        if (result == -1 && !ShutdownMayGoOn(bio, ssl, result))
            return;
    }
}

int SendWithoutSignal(BIO* bio, const char* data, int length) {
    int fd = -1;
    BIO_get_fd(bio, &fd);
    errno = 0;
    const int sent = static_cast<int>(send(fd, data, static_cast<size_t>(length), MSG_NOSIGNAL));
    BIO_clear_retry_flags(bio);
    if (sent <= 0 && BIO_sock_should_retry(sent))
        BIO_set_retry_write(bio);
    return sent;
}

int PutsWithoutSignal(BIO* bio, const char* text) {
    return SendWithoutSignal(bio, text, static_cast<int>(strlen(text)));
}

// OpenSSL's socket BIO writes with write(), which raises SIGPIPE; this one
// is that BIO with send(MSG_NOSIGNAL) in its place.
BIO_METHOD* SocketWithoutSignal() {
    static BIO_METHOD* const method = [] {
        const BIO_METHOD* socket = BIO_s_socket();
        BIO_METHOD* made = BIO_meth_new(BIO_TYPE_SOCKET, "socket without SIGPIPE");
        if (made != nullptr) {
            BIO_meth_set_write(made, SendWithoutSignal);
            BIO_meth_set_puts(made, PutsWithoutSignal);
            BIO_meth_set_read(made, BIO_meth_get_read(socket));
            BIO_meth_set_ctrl(made, BIO_meth_get_ctrl(socket));
            BIO_meth_set_create(made, BIO_meth_get_create(socket));
            BIO_meth_set_destroy(made, BIO_meth_get_destroy(socket));
        }
        return made;
    }();
    return method;
}

}  // namespace

bool CHTTP::SplitURL(const char* url, wxString& scheme, _ipMethod_e& method, wxString& host,
                     int& port, wxString& path) {
    scheme.clear(), host.clear(), path.clear();
    port = 0;
    method = ipUnknown;
    const std::string text = url != nullptr ? url : "";
    const size_t separator = text.find("://");
    if (separator == std::string::npos)
        return BadUrl(text);
    scheme = FromWire(text.substr(0, separator)).Lower();
    const size_t start = separator + 3;
    const size_t slash = text.find('/', start);
    if (slash == std::string::npos || slash == start)
        return BadUrl(text);
    std::string authority = text.substr(start, slash - start);
    if (!SplitHostPort(authority, method, port))
        return BadUrl(text);
    if (port == 0)
        port = DefaultPort(scheme);
    path = FromWire(text.substr(slash));
    host = FromWire(authority);
    return URLDecode(host) || BadUrl(text);
}

CHTTP::CHTTP(CSSLContext* context)
    : m_traceCleartext(wxLog::IsAllowedTraceMask(wxS("HTTPCleartext"))),
      m_trace(LogTraceIsEnabled(s_Trace)),
      m_headersToSend(5),
      m_receivedHeaders(5),
      m_context(context) {}

CHTTP::~CHTTP() {
    FreeBIO();
    FreeReceivedHeaders();
}

void CHTTP::SetSocketTimeout(int seconds) {
    m_timeout = std::max(seconds, kMinimumTimeout);
}

bool CHTTP::IsConnected() const {
    return m_bio != nullptr && BIO_get_fd(m_bio, nullptr) != -1;
}

X509* CHTTP::GetPeerCertificate() {
    SSL* ssl = nullptr;
    if (m_bio != nullptr)
        BIO_get_ssl(m_bio, &ssl);
    return ssl != nullptr ? SSL_get1_peer_certificate(ssl) : nullptr;
}

const SSL_CIPHER* CHTTP::GetCipher() const {
    SSL* ssl = nullptr;
    if (m_bio != nullptr)
        BIO_get_ssl(m_bio, &ssl);
    return ssl != nullptr ? SSL_get_current_cipher(ssl) : nullptr;
}

void CHTTP::AddHTTPHeader(const wxString& name, const wxString& value) {
    if (!name.empty() && !value.empty())
        m_headersToSend[name] = value;
}

bool CHTTP::RemoveHTTPHeader(const wxString& name) {
    return m_headersToSend.erase(name) != 0;
}

bool CHTTP::GetOutgoingHeader(const wxString& name, wxString& value) const {
    const MapStringToString::const_iterator found = m_headersToSend.find(name);
    if (found == m_headersToSend.end())
        return false;
    value = found->second;
    return true;
}

bool CHTTP::GetReceivedHeader(const wxString& name, wxString& value) const {
    if (name.empty() || m_receivedHeaders.empty())
        return false;
    const MapStringToString::const_iterator found = m_receivedHeaders.find(name.Lower());
    if (found == m_receivedHeaders.end())
        return false;
    value = found->second;
    return true;
}

wxString CHTTP::GetReceivedHeader(const wxString& name) const {
    wxString value;
    GetReceivedHeader(name, value);
    return value;
}

bool CHTTP::GetReceivedHeader(unsigned long index, wxString& name, wxString& value) const {
    if (index >= m_receivedHeaders.size())
        return false;
    MapStringToString::const_iterator entry = m_receivedHeaders.begin();
    for (unsigned long skipped = 0; skipped < index; ++skipped)
        ++entry;
    name = entry->first;
    value = entry->second;
    return true;
}

bool CHTTP::TooLong(const std::string& gathered) const {
    if (gathered.size() <= kLineLimit)
        return false;
    wxLogError(wxS("CHTTP::ReadOneLine() - read %llu bytes from peer without encountering a "
                   "newline. Our limit is %u bytes"),
               static_cast<unsigned long long>(gathered.size()), static_cast<unsigned>(kLineLimit));
    return true;
}

// The line up to its first NUL, with its line ending.
wxString CHTTP::CompleteLine(std::string& gathered) const {
    gathered.resize(strnlen(gathered.c_str(), gathered.size()));
    if (m_trace)
        LogTrace(s_Trace, "ReadOneLine() - got: %.*s", TrimmedLength(gathered), gathered.c_str());
    return FromWire(gathered);
}

bool CHTTP::ReadOneLine(wxString& line) {
    if (!IsConnected()) {
        wxLogError(wxS("CHTTP::ReadOneLine() - not connected."));
        return false;
    }
    line.clear();
    std::string gathered;
    char buffer[kLineLimit];
    for (;;) {
        ERR_clear_error();
        const int count = BIO_gets(m_bio, buffer, sizeof buffer);
        if (count > 0) {
            gathered.append(buffer, static_cast<size_t>(count));
            if (TooLong(gathered))
                return false;
            if (buffer[count - 1] == '\n') {
                line = CompleteLine(gathered);
                return true;
            }
            if (static_cast<size_t>(count) == sizeof buffer - 1)
                continue;  // BIO_gets filled the buffer: the line goes on
        } else if (count == 0 && gathered.empty()) {
            // The peer closed at a line boundary. A TLS peer that closed
            // without close_notify, on a context without
            // SSL_OP_IGNORE_UNEXPECTED_EOF, leaves an error that would be
            // taken for the cause of whatever fails next.
            ERR_clear_error();
            return true;
        }
        // A close in the middle of a line fails below whether the start of
        // the line came with the close or ahead of it.
        bool retryRead = false;
        bool retryWrite = false;
        if (!BioShouldRetry(m_bio, retryRead, retryWrite)) {
            wxLogError(
                wxS("CHTTP::ReadOneLine() - BIO_gets() returned count of %d. OpenSSL %.128s"),
                count, OpenSSLError());
            return false;
        }
        if (!WaitWithTimeout(retryRead, retryWrite))
            return false;
    }
}

bool CHTTP::ReadHeaders() {
    if (!IsConnected()) {
        wxLogError(wxS("CHTTP::ReadHeaders() - not connected."));
        return false;
    }
    FreeReceivedHeaders();
    for (bool done = false; !done;) {
        // Ahead of the read: a 25th distinct name fails even if the block
        // would have ended with the next line.
        if (m_receivedHeaders.size() >= m_maxHeaders) {
            wxLogError(wxS("CHTTP::ReadHeaders() - too many header lines received."));
            return false;
        }
        if (!ReadHeaderLine(done))
            return false;
    }
    return true;
}

bool CHTTP::ReadHeaderLine(bool& done) {
    wxString line;
    if (!ReadOneLine(line))
        return false;
    if (line.empty()) {
        wxLogError(wxS("CHTTP::ReadHeaders() - connection closed before end of header fields."));
        return false;
    }
    line.Trim(true);
    if (line.empty()) {
        done = true;
        return true;
    }
    const int colon = line.Find(':');
    if (colon == wxNOT_FOUND) {
        wxLogError(wxS("CHTTP::ReadHeaders() - invalid header received: '%.128s'"), line);
        return false;
    }
    wxString value = line.Mid(static_cast<size_t>(colon) + 1);
    m_receivedHeaders[line.Left(static_cast<size_t>(colon)).Lower()] = value.Trim(false);
    return true;
}

bool CHTTP::WriteHeaders(const wxString& host, unsigned long contentLength, bool flush) {
    std::vector<std::string> lines;
    if (contentLength != ULONG_MAX)
        lines.push_back(std::string(m_HeaderContentLength) + ": " + std::to_string(contentLength));
    if (!host.empty())
        lines.push_back("Host: " + host.utf8_string());
    if (!m_userAgent.empty())
        lines.push_back(std::string(m_HeaderUserAgent) + ": " + m_userAgent.utf8_string());
    for (const MapStringToString::value_type& header : m_headersToSend)
        lines.push_back(header.first.utf8_string() + ": " + header.second.utf8_string());
    std::string block;
    for (const std::string& line : lines)
        block += (block.empty() ? "" : "\r\n") + line;
    if (m_trace)
        LogTrace(s_Trace, "Writing the following HTTP headers:\n%.*s",
                 static_cast<int>(block.size()), block.c_str());
    return WriteBytes(block + "\r\n\r\n", flush);
}

bool CHTTP::Write(wxInputStream& in, bool flush) {
    CBioOutputStream out(m_bio, m_timeout);
    return DoWrite(in, out, flush);
}

bool CHTTP::Write(const wxString& text, bool flush) {
    return WriteBytes(text.utf8_string(), flush);
}

bool CHTTP::WriteBytes(std::string bytes, bool flush) {
    bytes.resize(strnlen(bytes.c_str(), bytes.size()));
    wxMemoryInputStream in(bytes.data(), bytes.size());
    return Write(in, flush);
}

bool CHTTP::DoWrite(wxInputStream& in, CBioOutputStream& out, bool flush) {
    if (!IsConnected()) {
        wxLogError(wxS("CHTTP::DoWrite() - not connected."));
        return false;
    }
    const bool copied = CopyStream(in, out, flush, nullptr, nullptr);
    return copied && out.IsOk();
}

bool CHTTP::ReadContent(wxOutputStream& out, int& status, wxString& statusText) {
    m_receivedContentLength = 0;
    if (!IsConnected()) {
        wxLogError(wxS("CHTTP::Read() - not connected."));
        return false;
    }
    status = 200;
    statusText = wxS("OK");
    wxString value;
    if (GetReceivedHeader(Ascii(m_HeaderContentLength), value))
        m_receivedContentLength =
            static_cast<unsigned long long>(atol(value.utf8_string().c_str()));
    if (m_trace)
        LogTrace(s_Trace, "Reading %llu octets of content.", m_receivedContentLength);
    if (m_receivedContentLength == 0)
        return true;
    CBioInputStream body(m_bio, m_receivedContentLength, m_timeout);
    if (!GetReceivedHeader(Ascii(m_HeaderContentEncoding), value) ||
        value.IsSameAs(Ascii(m_EncodingIdentity), false))
        return DoRead(body, out);
    int format;
    if (value.IsSameAs(Ascii(m_EncodingGzip), false)) {
        format = wxZLIB_GZIP;
    } else if (value.IsSameAs(Ascii(m_EncodingDeflate), false)) {
        format = wxZLIB_ZLIB;
    } else {
        status = 415;
        statusText = wxS("Unsupported Media Type");
        return true;
    }
    wxZlibInputStream decoded(body, format);
    return DoRead(decoded, out);
}

bool CHTTP::DoRead(wxInputStream& in, wxOutputStream& out) {
    if (!CopyStream(in, out, false, nullptr, nullptr))
        return false;
    return in.IsOk() || in.Eof();
}

wxOutputStream* CHTTP::AttachResponseContentFilters(wxOutputStream& out) {
    wxString accepted;
    if (!GetReceivedHeader(Ascii(m_HeaderAcceptEncoding), accepted) || m_traceCleartext)
        return nullptr;
    wxArrayString tokens;
    Tokenize(tokens, accepted, ",");
    for (const wxString& token : tokens) {
        for (const auto& [name, format] : {std::make_pair(m_EncodingGzip, wxZLIB_GZIP),
                                           std::make_pair(m_EncodingDeflate, wxZLIB_ZLIB)}) {
            if (token.IsSameAs(Ascii(name), false)) {
                AddHTTPHeader(Ascii(m_HeaderContentEncoding), Ascii(name));
                return new wxZlibOutputStream(out, 9, format);
            }
        }
    }
    return nullptr;
}

bool CHTTP::Disconnect() {
    if (m_bio == nullptr)
        return true;
    if (m_trace)
        LogTrace(s_Trace, "Disconnect() - disconnecting");
    SSL* ssl = nullptr;
    BIO_get_ssl(m_bio, &ssl);
    if (ssl != nullptr) {
        // Nothing of the shutdown is reported, nor left queued for the next
        // reader of OpenSSL's errors.
        ERR_set_mark();
        ShutdownTls(m_bio, ssl);
        ERR_pop_to_mark();
    }
    return FreeBIO();
}

bool CHTTP::WaitWithTimeout(bool forRead, bool forWrite) {
    return BioWaitWithTimeout(m_bio, forRead, forWrite, m_timeout);
}

BIO* CHTTP::NewSocketBIO(int socket, bool closeSocket) {
    BIO_METHOD* method = SocketWithoutSignal();
    BIO* bio = method != nullptr ? BIO_new(method) : nullptr;
    if (bio != nullptr)
        BIO_set_fd(bio, socket, closeSocket ? BIO_CLOSE : BIO_NOCLOSE);
    return bio;
}

bool CHTTP::FreeBIO() {
    // OpenSSL doesn't own callback arguments: the dump BIOs go separately.
    std::vector<BIO*> dumps;
    for (BIO* bio = m_bio; bio != nullptr; bio = BIO_next(bio)) {
        BIO* dump = reinterpret_cast<BIO*>(BIO_get_callback_arg(bio));
        if (dump != nullptr)
            dumps.push_back(dump);
    }
    BIO_free_all(m_bio);
    m_bio = nullptr;
    std::for_each(dumps.begin(), dumps.end(), BIO_vfree);
    return true;
}

void CHTTP::FreeReceivedHeaders() {
    m_receivedHeaders.clear();
    m_receivedContentLength = 0;
}

}  // namespace VeskCore
