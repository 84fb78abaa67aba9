// Questions to the EC2 instance metadata service (IMDSv2) under a hard time
// limit: a session token by PUT /latest/api/token, then GETs that carry it; a
// PUT answered 403, 404 or 405 (a service without tokens) lets the GETs go
// without one. Each request is one short exchange of its own over a
// non-blocking connection ("Connection: close"), bounded by its own deadline
// and the deadline of the whole session, never by a socket time-out.
//
// Building requests and parsing answers is kept apart from the socket
// (Linux: Ec2MetadataLinux.cpp), so both are tested with literal bytes.
//
// Limits on what the service sends: a header block of at most 8 KiB, a body
// of at most 64 KiB; anything larger is a bad answer, refused as soon as it
// shows (by its Content-Length, or by its bytes).
//
// Thread safety: the functions may be called from any thread; a session
// belongs to one thread at a time.
#pragma once

#include <chrono>
#include <string>

namespace VeskCore {

using ImdsClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kImdsRequestTime{1000};  // one exchange
constexpr std::chrono::milliseconds kImdsSessionTime{2000};  // all of a session
constexpr size_t kImdsMaxHeaders = 8 * 1024;
constexpr size_t kImdsMaxBody = 64 * 1024;

// Where the service listens: an IPv4 address, never a name (a resolver has
// time-outs of its own).
struct ImdsEndpoint {
    std::string address = "169.254.169.254";
    int port = 80;
};

struct ImdsReply {
    int status = 0;
    std::string body;  // bytes as sent
};

enum class ImdsParse { more, done, bad };

// Parses the answer gathered so far. `closed`: the peer closed after these
// bytes. A body is framed by Content-Length, or else ends with the close;
// chunked transfer is not spoken (bad). `done` fills `reply`.
ImdsParse ParseImdsReply(const std::string& bytes, bool closed, ImdsReply& reply);

// The request texts. `token` may be empty: no token header.
std::string ImdsTokenRequest(const ImdsEndpoint& endpoint);
std::string ImdsGetRequest(const ImdsEndpoint& endpoint, const std::string& path,
                           const std::string& token);

// Whether `token` can travel in a header: 1 to 1024 visible ASCII characters.
bool IsUsableImdsToken(const std::string& token);

// One exchange over a fresh connection, ended by `deadline` at the latest.
// False, with a short reason in `error`, when the connection fails, the time
// runs out, the peer closes early or the answer is bad.
bool ImdsExchange(const ImdsEndpoint& endpoint, const std::string& request,
                  ImdsClock::time_point deadline, ImdsReply& reply, std::string& error);

// A series of questions under one deadline (kImdsSessionTime from its
// making), the token asked for on the first question.
class CImdsSession {
  public:
    explicit CImdsSession(const ImdsEndpoint& endpoint);

    // GET of `path`; true when an answer came (whatever its status). False,
    // with the reason in `error`, when no answer came or the token step
    // failed (no later question is then made).
    bool Get(const std::string& path, ImdsReply& reply, std::string& error);

  private:
    bool Ask(const std::string& request, ImdsReply& reply, std::string& error);
    bool FetchToken(std::string& error);

    ImdsEndpoint m_endpoint;
    ImdsClock::time_point m_deadline;
    bool m_tokenAsked = false;
    bool m_failed = false;
    std::string m_token;
};

}  // namespace VeskCore
