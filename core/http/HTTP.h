// What the client and the server side of HTTP/1.1 share: one BIO chain on
// one socket (buffer, TLS if in use, socket), the splitting of URLs, the
// reading of lines and header blocks, the writing of header blocks, and
// bodies framed by Content-Length alone, read through their content
// encoding (gzip, deflate as a zlib stream, identity). Chunked transfer
// encoding and bodies that end with the connection are not understood: a
// message without Content-Length has no body here.
//
// Limits on what a peer sends: lines of at most 32768 bytes with their line
// ending, at most 24 distinct header names in a message.
//
// Trace lines go under the mask "HTTP"; with the mask "HTTPCleartext" a
// server sends its responses uncompressed. Both masks are read when an
// object is made.
//
// Failures are a false result after one logged error (or none, where the
// layer below has logged); the connection is then left as it is, and closing
// it is the caller's (Disconnect). Nothing throws.
//
// Ownership: an object owns its chain and, through it, the socket when the
// chain was made to close it; not the TLS context.
// Thread safety: an object belongs to one thread at a time; the static
// constants are read-only.
#pragma once

#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <wx/hashmap.h>
#include <wx/stream.h>
#include <wx/string.h>

#include <string>

#include "core/common/Export.h"
#include "core/common/Maps.h"

namespace VeskCore {

class CBioOutputStream;
class CSSLContext;

class VESK_EXPORT CHTTP {
  public:
    // How the host of a URL is written.
    enum _ipMethod_e { ipHostName = 0, ipNumericV4 = 1, ipBracketedV6 = 2, ipUnknown = 3 };

    static const char* const s_Trace;  // "HTTP"

    static const char* const m_ConnectionClose;
    static const char* const m_EncodingDeflate;
    static const char* const m_EncodingGzip;
    static const char* const m_EncodingIdentity;
    static const char* const m_HeaderAcceptEncoding;
    static const char* const m_HeaderConnection;
    static const char* const m_HeaderContentEncoding;
    static const char* const m_HeaderContentLength;
    static const char* const m_HeaderContentType;
    static const char* const m_HeaderVeskUserdataPrefix;  // for callers outside the library
    static const char* const m_HeaderTransferEncoding;    // for callers outside the library
    static const char* const m_HeaderUserAgent;
    static const char* const m_HeaderAuthorization;
    static const char* const m_HeaderProxyAuthorization;

    // Splits "scheme://host[:port]/path" (UTF-8). The scheme comes out
    // lower-cased; the host without brackets and percent-decoded; the port is
    // the URL's, else the scheme's default (http 80, https 443, ftp 21, vkm
    // 4120), else 0; the path from the first "/" behind the host on, query
    // and fragment included, not decoded. Only the host's first character
    // tells a name from an IPv4 address. False, with a warning, for a URL
    // without "://", without a path, with an empty host, or with a "[" that
    // is never closed.
    static bool SplitURL(const char* url, wxString& scheme, _ipMethod_e& method, wxString& host,
                         int& port, wxString& path);

    // `context` (may be null) is not owned and must outlive the object.
    explicit CHTTP(CSSLContext* context);
    CHTTP(const CHTTP&) = delete;
    CHTTP& operator=(const CHTTP&) = delete;
    // Frees the chain without a TLS shutdown.
    virtual ~CHTTP();

    CSSLContext* GetContext() { return m_context; }
    void SetContext(CSSLContext* context) { m_context = context; }
    // The wait limit of one idle socket wait, in whole seconds: 120 at
    // first, and never below 60 (lower values become 60).
    void SetSocketTimeout(int seconds);
    const wxString& GetUserAgent() const { return m_userAgent; }
    void SetUserAgent(const wxString& agent) { m_userAgent = agent; }

    // Whether a chain with a socket stands.
    bool IsConnected() const;
    // The TLS peer's certificate (the caller frees it) or null, and the
    // cipher in use or null; both null without TLS.
    X509* GetPeerCertificate();
    const SSL_CIPHER* GetCipher() const;

    // Outgoing headers, sent with every message of every connection until
    // removed. Names are case-sensitive here; an empty name or value is
    // ignored, a second value replaces the first.
    void AddHTTPHeader(const wxString& name, const wxString& value);
    // Whether an entry was removed.
    bool RemoveHTTPHeader(const wxString& name);
    bool GetOutgoingHeader(const wxString& name, wxString& value) const;

    // Headers of the last message read, by name in any case. The indexed
    // form walks them in no particular order, names lower-cased; false past
    // the end.
    bool GetReceivedHeader(const wxString& name, wxString& value) const;
    wxString GetReceivedHeader(const wxString& name) const;
    bool GetReceivedHeader(unsigned long index, wxString& name, wxString& value) const;
    // Content-Length of the message read last; 0 without one.
    unsigned long GetReceivedContentLength() const { return m_receivedContentLength; }

    // Reads a header block up to its empty line, replacing the headers held.
    // A later line of a name replaces the earlier value. Fails on a line
    // without ":", on the 25th distinct name, and on a close before the end.
    bool ReadHeaders();
    // Reads the body that the headers announce into `out`, decoded. `status`
    // and `statusText` say what this layer made of it: 200 "OK", or 415
    // "Unsupported Media Type" for an unknown Content-Encoding, whose body is
    // left unread. A body cut short by the peer's close is a success with
    // fewer bytes; read errors, bad compressed data and time-outs fail.
    bool ReadContent(wxOutputStream& out, int& status, wxString& statusText);
    // A server's choice of the response encoding from the received
    // Accept-Encoding: the first token that is exactly "gzip" or "deflate"
    // (any case; tokens are not trimmed, quality values not understood)
    // gives a new compressing stream over `out` and the outgoing header
    // Content-Encoding. Null when nothing matches, when the request had no
    // Accept-Encoding, or under the trace mask "HTTPCleartext". The caller
    // owns the stream, writes the body through it and deletes it before
    // responding; it also removes the header again when no body follows.
    wxOutputStream* AttachResponseContentFilters(wxOutputStream& out);

    // Ends the connection: a TLS shutdown bounded to 5 rounds of at most 5
    // seconds each (its errors are not reported), then the chain is freed.
    // Always true.
    bool Disconnect();

  protected:
    // One line with its line ending (at most 32768 bytes), cut at a NUL.
    // True with `line` empty when the peer had closed at a line boundary;
    // a close in the middle of a line is an error.
    bool ReadOneLine(wxString& line);
    // Writes Content-Length (none when `contentLength` is all ones), Host
    // (unless `host` is empty; as given, without port), User-Agent (if set)
    // and the outgoing headers, then the empty line; flushes if `flush`.
    bool WriteHeaders(const wxString& host, unsigned long contentLength, bool flush);
    bool WriteContent(wxInputStream& in) { return Write(in, true); }
    bool Write(wxInputStream& in, bool flush);
    // The UTF-8 bytes of `text` up to its first NUL.
    bool Write(const wxString& text, bool flush);
    // Copies `in` into `out` (a stream on this object's chain); a failed
    // flush, where a TLS handshake fails, fails the write.
    bool DoWrite(wxInputStream& in, CBioOutputStream& out, bool flush);
    // Copies the body stream `in` to `out`; true at its end or when it stays
    // readable.
    bool DoRead(wxInputStream& in, wxOutputStream& out);
    bool WaitWithTimeout(bool forRead, bool forWrite);
    // A socket BIO over `socket` (closed with the BIO if `closeSocket`) that
    // sends with MSG_NOSIGNAL: a peer that is gone makes a write fail instead
    // of killing the process with SIGPIPE. Null on failure.
    static BIO* NewSocketBIO(int socket, bool closeSocket);
    // Frees the chain (closing the socket if the chain owns it), and the dump
    // BIOs hung on it as callback arguments. Always true.
    bool FreeBIO();
    void FreeReceivedHeaders();

    bool m_traceCleartext;
    bool m_trace;
    BIO* m_bio = nullptr;  // owned; null when not connected
    MapStringToString m_headersToSend;
    unsigned long long m_maxHeaders = 25;
    unsigned long long m_receivedContentLength = 0;
    MapStringToString m_receivedHeaders;  // names lower-cased
    CSSLContext* m_context;
    int m_timeout = 120;
    wxString m_userAgent;

  private:
    bool TooLong(const std::string& gathered) const;
    wxString CompleteLine(std::string& gathered) const;
    bool ReadHeaderLine(bool& done);
    bool WriteBytes(std::string bytes, bool flush);
};

}  // namespace VeskCore
