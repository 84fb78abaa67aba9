// The message layer without a network: URLs, and messages that the test
// writes into the other end of a socket pair that a client is attached to.
#include <gtest/gtest.h>
#include <wx/mstream.h>
#include <wx/zstream.h>

#include "core/runtime/LogTrace.h"
#include "tests/http/HttpPeers.h"
#include "tests/support/CapturingLog.h"

using namespace VeskCore;
using namespace VeskTest;

namespace {

TEST(SplitURL, Forms) {
    const struct {
        const char* url;
        const char* parts;  // scheme method host port path; null when refused
    } rows[] = {
        {"https://manager.example/", "https 0 manager.example 443 /"},
        {"HTTP://Host:8080/a/b?q=1#f", "http 0 Host 8080 /a/b?q=1#f"},
        {"http://[::1]:8443/x", "http 2 ::1 8443 /x"},
        {"https://[fe80::1]:/", "https 2 fe80::1 443 /"},
        {"vkm://10.0.0.1:0/", "vkm 1 10.0.0.1 4120 /"},
        {"ftp://9lives.example/", "ftp 1 9lives.example 21 /"},
        {"gopher://h/", "gopher 0 h 0 /"},
        {"http://h%41st/p%20q", "http 0 hAst 80 /p%20q"},
        {"https://user:pw@host/", "https 0 user 443 /"},
        {"https://manager.example", nullptr},
        {"http:///path", nullptr},
        {"no-scheme/path", nullptr},
        {"http://[::1/", nullptr},
    };
    for (const auto& row : rows) {
        CapturingLog log;
        wxString scheme, host, path;
        CHTTP::_ipMethod_e method;
        int port = -1;
        const bool split = CHTTP::SplitURL(row.url, scheme, method, host, port, path);
        const wxString parts =
            wxString::Format(wxS("%s %d %s %d %s"), scheme, method, host, port, path);
        EXPECT_EQ(split ? parts : wxString(), wxString::FromUTF8(row.parts ? row.parts : ""));
        EXPECT_EQ(log.Contains(std::string("badly-formed URL supplied: <") + row.url + ">"),
                  !split);
    }
}

// The request's Accept-Encoding, the encoding chosen, and the body decoded;
// then an unknown Content-Encoding: status 415 and the body left unread.
TEST(HTTPMessage, ContentEncodings) {
    const struct {
        const char* accepted;  // null: no Accept-Encoding
        bool cleartext;
        const char* chosen;
    } rows[] = {
        {"deflate, gzip", false, "deflate"},    {"x, gzip", false, ""}, {"x,GZIP", false, "gzip"},
        {"gzip;q=1,deflate", false, "deflate"}, {nullptr, false, ""},   {"gzip", true, ""}};
    for (const auto& row : rows) {
        TraceMasksSet(row.cleartext ? "HTTPCleartext" : "");
        int pair[2];
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair);
        ProbedClient client(nullptr, true);
        TraceMasksSet("");
        client.Attach(pair[0], wxS("peer"), 1, true);
        const std::string header =
            row.accepted ? std::string("Accept-Encoding: ") + row.accepted : "X: 1";
        SendAll(pair[1], header + "\r\n\r\nContent-Length: 4\r\nContent-Encoding: br\r\n\r\nabc\n");
        close(pair[1]);
        ASSERT_TRUE(client.ReadHeaders());
        wxMemoryOutputStream out;
        std::unique_ptr<wxOutputStream> filter(client.AttachResponseContentFilters(out));
        wxString chosen;
        client.GetOutgoingHeader(wxS("Content-Encoding"), chosen);
        EXPECT_EQ(chosen, wxString::FromUTF8(row.chosen)) << header;
        EXPECT_EQ(client.GetReceivedHeader(wxS("accept-ENCODING")).empty(), !row.accepted);
        if (filter) {
            filter->Write("body", 4);
            filter.reset();
            wxMemoryInputStream compressed(out);
            wxZlibInputStream decoded(compressed, wxZLIB_AUTO);
            char text[8] = {};
            EXPECT_STREQ(decoded.Read(text, 7).LastRead() == 4 ? text : "", "body") << row.chosen;
        }
        int status = 0;
        wxString reason, line;
        ASSERT_TRUE(client.ReadHeaders());
        EXPECT_TRUE(client.ReadContent(out, status, reason));
        EXPECT_EQ(wxString::Format(wxS("%d %s"), status, reason),
                  wxS("415 Unsupported Media Type"));
        EXPECT_TRUE(client.ReadOneLine(line) && line == wxS("abc\n"));
    }
}

}  // namespace
