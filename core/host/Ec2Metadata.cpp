#include "core/host/Ec2Metadata.h"

#include <algorithm>
#include <cctype>

namespace VeskCore {
namespace {

struct ReplyHead {
    int status = 0;
    long long length = -1;  // no Content-Length
    bool chunked = false;
};

bool IsVisibleAscii(const std::string& text, size_t longest) {
    return !text.empty() && text.size() <= longest &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 127; });
}

std::string Lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string Trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    const size_t last = text.find_last_not_of(" \t");
    return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

// "HTTP/1.x NNN[ reason]"
bool ParseStatusLine(const std::string& line, int& status) {
    if (line.size() < 12 || line.compare(0, 7, "HTTP/1.") != 0 || line[8] != ' ' ||
        (line.size() > 12 && line[12] != ' '))
        return false;
    status = 0;
    for (size_t i = 9; i < 12; ++i) {
        if (!isdigit(static_cast<unsigned char>(line[i])))
            return false;
        status = status * 10 + (line[i] - '0');
    }
    return true;
}

bool ParseContentLength(const std::string& value, ReplyHead& head) {
    // Digits only, and short enough that the value can't overflow.
    if (value.empty() || value.size() > 18 ||
        !std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    const long long length = std::stoll(value);
    // Two lengths that disagree are a classic way to smuggle a second answer.
    if (length > static_cast<long long>(kImdsMaxBody) ||
        (head.length >= 0 && head.length != length))
        return false;
    head.length = length;
    return true;
}

bool ParseHeaderLine(const std::string& line, ReplyHead& head) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0)
        return false;
    const std::string name = Lower(line.substr(0, colon));
    const std::string value = Trimmed(line.substr(colon + 1));
    if (name == "content-length")
        return ParseContentLength(value, head);
    if (name == "transfer-encoding")
        head.chunked = head.chunked || Lower(value) != "identity";
    return true;
}

// The header block, up to and including its empty line; `bodyStart` is the
// offset behind it.
ImdsParse ParseHead(const std::string& bytes, ReplyHead& head, size_t& bodyStart) {
    for (size_t pos = 0, lineNo = 0;; ++lineNo) {
        const size_t newline = bytes.find('\n', pos);
        if (newline == std::string::npos)
            return bytes.size() > kImdsMaxHeaders ? ImdsParse::bad : ImdsParse::more;
        if (newline >= kImdsMaxHeaders)
            return ImdsParse::bad;
        std::string line = bytes.substr(pos, newline - pos);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        pos = newline + 1;
        if (lineNo == 0) {
            if (!ParseStatusLine(line, head.status))
                return ImdsParse::bad;
        } else if (line.empty()) {
            bodyStart = pos;
            return ImdsParse::done;
        } else if (!ParseHeaderLine(line, head)) {
            return ImdsParse::bad;
        }
    }
}

std::string HostHeader(const ImdsEndpoint& endpoint) {
    return "Host: " + endpoint.address +
           (endpoint.port == 80 ? std::string() : ":" + std::to_string(endpoint.port)) + "\r\n";
}

}  // namespace

ImdsParse ParseImdsReply(const std::string& bytes, bool closed, ImdsReply& reply) {
    ReplyHead head;
    size_t bodyStart = 0;
    const ImdsParse state = ParseHead(bytes, head, bodyStart);
    if (state != ImdsParse::done)
        return state == ImdsParse::more && closed ? ImdsParse::bad : state;
    if (head.chunked)
        return ImdsParse::bad;
    const size_t available = bytes.size() - bodyStart;
    if (head.length >= 0 && available < static_cast<size_t>(head.length))
        return closed ? ImdsParse::bad : ImdsParse::more;
    if (head.length < 0 && available > kImdsMaxBody)
        return ImdsParse::bad;
    if (head.length < 0 && !closed)
        return ImdsParse::more;
    reply.status = head.status;
    reply.body = bytes.substr(
        bodyStart, head.length >= 0 ? static_cast<size_t>(head.length) : std::string::npos);
    return ImdsParse::done;
}

std::string ImdsTokenRequest(const ImdsEndpoint& endpoint) {
    return "PUT /latest/api/token HTTP/1.1\r\n" + HostHeader(endpoint) +
           "X-aws-ec2-metadata-token-ttl-seconds: 21600\r\n"
           "Content-Length: 0\r\n"
           "Connection: close\r\n\r\n";
}

std::string ImdsGetRequest(const ImdsEndpoint& endpoint, const std::string& path,
                           const std::string& token) {
    return "GET " + path + " HTTP/1.1\r\n" + HostHeader(endpoint) +
           (token.empty() ? std::string() : "X-aws-ec2-metadata-token: " + token + "\r\n") +
           "Connection: close\r\n\r\n";
}

bool IsUsableImdsToken(const std::string& token) {
    return IsVisibleAscii(token, 1024);
}

CImdsSession::CImdsSession(const ImdsEndpoint& endpoint)
    : m_endpoint(endpoint), m_deadline(ImdsClock::now() + kImdsSessionTime) {}

bool CImdsSession::Get(const std::string& path, ImdsReply& reply, std::string& error) {
    if (m_failed) {
        error = "an earlier request failed";
        return false;
    }
    if (!m_tokenAsked && !FetchToken(error)) {
        m_failed = true;
        return false;
    }
    // The path goes into the request line as it stands.
    if (!IsVisibleAscii(path, 1024) || path[0] != '/') {
        error = "unusable path";
        return false;
    }
    return Ask(ImdsGetRequest(m_endpoint, path, m_token), reply, error);
}

bool CImdsSession::Ask(const std::string& request, ImdsReply& reply, std::string& error) {
    const ImdsClock::time_point now = ImdsClock::now();
    if (now >= m_deadline) {
        error = "time-out";
        return false;
    }
    return ImdsExchange(m_endpoint, request, std::min(now + kImdsRequestTime, m_deadline), reply,
                        error);
}

bool CImdsSession::FetchToken(std::string& error) {
    m_tokenAsked = true;
    ImdsReply reply;
    if (!Ask(ImdsTokenRequest(m_endpoint), reply, error))
        return false;
    // A service that knows no tokens (IMDSv1 only, or tokens switched off).
    if (reply.status == 403 || reply.status == 404 || reply.status == 405)
        return true;
    std::string token = reply.body;
    while (!token.empty() && isspace(static_cast<unsigned char>(token.back())))
        token.pop_back();
    if (reply.status != 200 || !IsUsableImdsToken(token)) {
        error = "no token (status " + std::to_string(reply.status) + ")";
        return false;
    }
    m_token = token;
    return true;
}

}  // namespace VeskCore
