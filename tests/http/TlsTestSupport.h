// What the TLS tests and the handshake benchmark share: certificates made by
// the openssl command, child processes (s_server, s_client, s_time) with their
// output, and loopback sockets that give up after a time-out.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/pem.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/common/Credentials.h"

extern char** environ;

namespace VeskTest {

// <name>.pem in `dir`, each with the key named in brackets: ca and rogue, two
// CAs of which ca alone is trusted; server [server] is CN=manager.test from
// ca, elsewhere [server] another host's, impostor [server] manager.test from
// rogue, expired [server] from ca but of 2020; agent [agent] and weak [weak,
// RSA 1024] from ca; self and selfexpired [self] self-signed, the second of 2020.
inline bool MakePki(const std::string& dir) {
    const std::string script = "cd '" + dir + R"(' && set -e
key() { openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:${2:-2048} -out $1.key; }
for k in ca rogue server agent self; do key $k; done
key weak 1024
openssl req -x509 -key ca.key -subj '/O=Vesk Test/CN=Vesk Test CA' -days 30 -out ca.pem
openssl req -x509 -key rogue.key -subj '/O=Rogue/CN=Rogue CA' -days 30 -out rogue.pem
openssl req -x509 -key self.key -subj /CN=self -days 30 -out self.pem
issue() {  # name key subject ca
  openssl req -new -key $2.key -subj "$3" -out $1.csr
  openssl x509 -req -in $1.csr -CA $4.pem -CAkey $4.key -set_serial 0x$(openssl rand -hex 8) \
    -days 30 -out $1.pem
}
issue server server /CN=manager.test ca
issue elsewhere server /CN=elsewhere.test ca
issue impostor server /CN=manager.test rogue
issue agent agent /CN=agent ca
issue weak weak '/CN=weak agent' ca
printf '[ca]\ndefault_ca=d\n[d]\ndatabase=index.txt\nnew_certs_dir=.\nserial=serial\n' >ca.cnf
printf 'default_md=sha256\npolicy=p\nunique_subject=no\n[p]\ncommonName=supplied\n' >>ca.cnf
touch index.txt; echo 01 >serial
dated() { openssl ca -config ca.cnf -batch -notext -startdate 20200101000000Z \
  -enddate 20200201000000Z "$@"; }
dated -cert ca.pem -keyfile ca.key -in server.csr -out expired.pem
openssl req -new -key self.key -subj /CN=self -out self.csr
dated -selfsign -keyfile self.key -in self.csr -out selfexpired.pem
)";
    return std::system(("(" + script + ") >/dev/null 2>&1").c_str()) == 0;
}

// Writes activated credentials (the key encrypted under a sealed password,
// for the machine VESK_HOSTSEAL_FACTS describes) of two PEM files to `path`.
inline bool WriteCredentials(const std::string& path, const std::string& certificate,
                             const std::string& key) {
    BIO* in = BIO_new_file(certificate.c_str(), "r");
    X509* x509 = in != nullptr ? PEM_read_bio_X509(in, nullptr, nullptr, nullptr) : nullptr;
    BIO_free(in);
    in = BIO_new_file(key.c_str(), "r");
    EVP_PKEY* pkey =
        in != nullptr ? PEM_read_bio_PrivateKey(in, nullptr, nullptr, nullptr) : nullptr;
    BIO_free(in);
    const bool written = VeskCore::EncryptPrivateKey(wxString::FromUTF8(path), pkey, x509);
    X509_free(x509);
    EVP_PKEY_free(pkey);
    return written;
}

// A child process whose standard input is a pipe and whose standard output
// and error come back through one pipe. Killed and reaped when destroyed.
class ChildProcess {
  public:
    explicit ChildProcess(const std::vector<std::string>& argv) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0)
            return;
        if (pipe2(out, O_CLOEXEC) != 0) {
            close(in[0]), close(in[1]);
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, out[1], 2);
        std::vector<char*> args;
        for (const std::string& arg : argv)
            args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        if (posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]), close(out[1]);
        input_ = in[1];
        output_ = out[0];
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        CloseInput();
        if (output_ >= 0)
            close(output_);
    }

    bool Write(const std::string& text) {
        return input_ >= 0 &&
               write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }
    void CloseInput() {
        if (input_ >= 0)
            close(input_);
        input_ = -1;
    }
    // The rest of the first output line that begins with `prefix`, or "" when
    // none came within `timeoutMs`.
    std::string WaitForLine(const std::string& prefix, int timeoutMs) {
        const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        for (size_t from = 0;;) {
            for (size_t end; (end = output.find('\n', from)) != std::string::npos; from = end + 1)
                if (output.compare(from, prefix.size(), prefix) == 0)
                    return output.substr(from + prefix.size(), end - from - prefix.size());
            if (!ReadSome(deadline))
                return "";
        }
    }
    // The exit status, or -1 when the process didn't end within `timeoutMs`
    // (it is killed then). Output keeps being collected meanwhile.
    int Wait(int timeoutMs) {
        const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        int status = 0;
        while (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == 0) {
            if (Clock::now() >= deadline)
                return -1;
            ReadSome(Clock::now() + std::chrono::milliseconds(10));
        }
        if (pid_ <= 0)
            return -1;
        pid_ = -1;
        while (ReadSome(Clock::now() + std::chrono::milliseconds(100))) {
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    std::string output;  // everything read so far

  private:
    using Clock = std::chrono::steady_clock;

    bool ReadSome(Clock::time_point deadline) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd ready{output_, POLLIN, 0};
        if (output_ < 0 || left.count() <= 0 ||
            poll(&ready, 1, static_cast<int>(left.count())) <= 0)
            return false;
        char buffer[4096];
        const ssize_t got = read(output_, buffer, sizeof buffer);
        if (got > 0)
            output.append(buffer, static_cast<size_t>(got));
        return got > 0;
    }

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
};

// `openssl s_server` on an ephemeral loopback port; port() is 0 if it never
// said where it listens.
class OpensslServer : public ChildProcess {
  public:
    explicit OpensslServer(std::vector<std::string> options)
        : ChildProcess(Arguments(std::move(options))) {
        const std::string address = WaitForLine("ACCEPT ", 10000);
        const size_t colon = address.rfind(':');
        port_ = colon == std::string::npos ? 0 : std::atoi(address.c_str() + colon + 1);
    }
    int port() const { return port_; }

  private:
    static std::vector<std::string> Arguments(std::vector<std::string> options) {
        options.insert(options.begin(), {"openssl", "s_server", "-accept", "127.0.0.1:0"});
        return options;
    }
    int port_ = 0;
};

// Reads, writes and (on a listener) accept give up after `seconds`.
inline void SetTimeouts(int fd, int seconds) {
    const timeval limit{seconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

inline sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A TCP connection to 127.0.0.1:`port` with time-outs of `seconds`; -1 on failure.
inline int ConnectLoopback(int port, int seconds) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = Loopback(port);
    SetTimeouts(fd, seconds);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return fd;
    if (fd >= 0)
        close(fd);
    return -1;
}

// A listener on 127.0.0.1 with time-outs of `seconds`, which the connections
// it accepts inherit, on an ephemeral port that `port` gets; -1 on failure.
inline int ListenLoopback(int& port, int seconds) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    SetTimeouts(fd, seconds);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 8) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (fd >= 0)
            close(fd);
        return -1;
    }
    port = ntohs(address.sin_port);
    return fd;
}

}  // namespace VeskTest
