// driver_sim: a simulated prevention driver for the tests of the Linux
// build. It serves the device protocol of the Linux driver channel on a Unix
// socket and answers as its scenario (scenario.h) says.
//
//   driver_sim SOCKET [--scenario FILE] [--set DIRECTIVE]... [--log FILE]
//
// The socket appears only once it accepts connections (it is bound under a
// temporary name and renamed). Every event is appended to the log file as
// one line:
//   open 0                  an opener was accepted
//   open-refused N          an opener was refused with error N
//   request NAME code=0x... in=N out=N [data=HEX]
//   complete NAME status=N  a pending request was completed
//   cancel NAME             the opener closed while a request was unanswered
//   close                   an opener closed the device
// SIGTERM or SIGINT ends it and removes the socket.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "scenario.h"

namespace {

using Clock = std::chrono::steady_clock;

volatile sig_atomic_t g_stop = 0;

void onSignal(int) { g_stop = 1; }

constexpr uint32_t kMaxInput = 16u * 1024u * 1024u;

struct Client {
    int fd = -1;
    bool opened = false;
    std::string input;
    // The request that has not been answered completely yet.
    bool unanswered = false;
    uint32_t code = 0;
    bool timer = false;
    Clock::time_point completeAt;
    uint32_t completeStatus = 0;
    std::string completeOutput;
};

class Log {
public:
    explicit Log(const std::string& path) {
        if (!path.empty()) file_ = std::fopen(path.c_str(), "a");
    }
    ~Log() {
        if (file_ != nullptr) std::fclose(file_);
    }
    void line(const std::string& text) {
        if (file_ == nullptr) return;
        std::fputs(text.c_str(), file_);
        std::fputc('\n', file_);
        std::fflush(file_);
    }

private:
    FILE* file_ = nullptr;
};

std::string codeName(uint32_t code) {
    const char* name = zsim_code_name(code);
    if (name != nullptr) return name;
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%08X", code);
    return buf;
}

void appendWord(std::string& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out += static_cast<char>((v >> (8 * i)) & 0xFF);
}

uint32_t wordAt(const std::string& s, size_t offset) {
    const auto* p = reinterpret_cast<const uint8_t*>(s.data() + offset);
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

bool sendAll(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// True when the peer has closed its end (checked without blocking).
bool peerClosed(int fd) {
    char c;
    const ssize_t n = ::recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT);
    return n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
}

class Server {
public:
    Server(zsim_scenario* scenario, Log& log) : s_(scenario), log_(log) {}

    bool listenAt(const std::string& path) {
        path_ = path;
        const std::string temporary = path + ".tmp" + std::to_string(::getpid());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (temporary.size() >= sizeof address.sun_path) {
            std::fprintf(stderr, "driver_sim: socket path too long: %s\n", path.c_str());
            return false;
        }
        std::memcpy(address.sun_path, temporary.c_str(), temporary.size() + 1);
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ::unlink(temporary.c_str());
        if (listener_ < 0 || ::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 64) != 0 || ::rename(temporary.c_str(), path.c_str()) != 0) {
            std::fprintf(stderr, "driver_sim: cannot serve %s: %s\n", path.c_str(), std::strerror(errno));
            ::unlink(temporary.c_str());
            return false;
        }
        return true;
    }

    void run() {
        while (!g_stop) {
            std::vector<pollfd> fds;
            fds.push_back({listener_, POLLIN, 0});
            for (const auto& c : clients_) fds.push_back({c->fd, POLLIN, 0});
            const int ready = ::poll(fds.data(), fds.size(), pollTimeout());
            if (ready < 0 && errno != EINTR) break;
            if (ready > 0) {
                // Clients first, so that a closed opener is gone before the next is accepted.
                for (size_t i = 1; i < fds.size(); ++i) {
                    if (fds[i].revents != 0) readFrom(*clients_[i - 1]);
                }
                if (fds[0].revents & POLLIN) accept();
            }
            fireTimers();
            removeClosed();
        }
        for (auto& c : clients_) ::close(c->fd);
        ::close(listener_);
        ::unlink(path_.c_str());
    }

private:
    int pollTimeout() const {
        int timeout = -1;
        const auto now = Clock::now();
        for (const auto& c : clients_) {
            if (!c->timer) continue;
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(c->completeAt - now).count();
            const int t = ms <= 0 ? 0 : static_cast<int>(ms);
            if (timeout < 0 || t < timeout) timeout = t;
        }
        return timeout;
    }

    void accept() {
        const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        // An opener that closed just before this one connected must not count.
        for (auto& c : clients_)
            if (c->fd >= 0 && peerClosed(c->fd)) drop(*c);
        removeClosed();
        uint32_t others = 0;
        for (const auto& c : clients_)
            if (c->opened) ++others;
        const uint32_t status = zsim_open_status(s_, others);
        std::string word;
        appendWord(word, status);
        if (!sendAll(fd, word) || status != 0) {
            log_.line("open-refused " + std::to_string(status));
            ::close(fd);
            return;
        }
        log_.line("open 0");
        auto c = std::make_unique<Client>();
        c->fd = fd;
        c->opened = true;
        clients_.push_back(std::move(c));
    }

    void readFrom(Client& c) {
        if (c.fd < 0) return;
        char buf[65536];
        const ssize_t n = ::recv(c.fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
            drop(c);
            return;
        }
        if (n < 0) return;
        c.input.append(buf, static_cast<size_t>(n));
        while (c.fd >= 0 && c.input.size() >= 12) {
            const uint32_t code = wordAt(c.input, 0);
            const uint32_t inputLength = wordAt(c.input, 4);
            const uint32_t capacity = wordAt(c.input, 8);
            if (inputLength > kMaxInput) {
                drop(c);
                return;
            }
            if (c.input.size() < 12 + static_cast<size_t>(inputLength)) break;
            const std::string data = c.input.substr(12, inputLength);
            c.input.erase(0, 12 + static_cast<size_t>(inputLength));
            request(c, code, data, capacity);
        }
    }

    void request(Client& c, uint32_t code, const std::string& data, uint32_t capacity) {
        const auto* input = reinterpret_cast<const uint8_t*>(data.data());
        std::vector<char> line(64 + 2 * data.size());
        zsim_describe_request(code, input, static_cast<uint32_t>(data.size()), capacity, line.data(), line.size());
        log_.line(line.data());

        zsim_answer answer;
        zsim_answer_request(s_, code, input, static_cast<uint32_t>(data.size()), capacity, &answer);
        const std::string output(reinterpret_cast<const char*>(answer.output), answer.output_length);
        std::string reply;
        c.code = code;
        c.unanswered = false;
        switch (answer.how) {
        case ZSIM_IMMEDIATE:
            appendWord(reply, 0);
            appendWord(reply, answer.status);
            appendWord(reply, answer.output_length);
            reply += output;
            break;
        case ZSIM_PENDING:
            appendWord(reply, 1);
            c.unanswered = true;
            c.timer = true;
            c.completeAt = Clock::now() + std::chrono::milliseconds(answer.delay_ms);
            c.completeStatus = answer.status;
            c.completeOutput = output;
            break;
        case ZSIM_PENDING_FOREVER:
            appendWord(reply, 1);
            c.unanswered = true;
            break;
        case ZSIM_ABANDONED:
            appendWord(reply, 2);
            break;
        case ZSIM_WAIT_FAILED:
            appendWord(reply, 3);
            break;
        case ZSIM_SILENT:
        default:
            c.unanswered = true;
            break;
        }
        if (!reply.empty() && !sendAll(c.fd, reply)) drop(c);
    }

    void fireTimers() {
        const auto now = Clock::now();
        for (auto& c : clients_) {
            if (c->fd < 0 || !c->timer || c->completeAt > now) continue;
            c->timer = false;
            c->unanswered = false;
            std::string frame;
            appendWord(frame, c->completeStatus);
            appendWord(frame, static_cast<uint32_t>(c->completeOutput.size()));
            frame += c->completeOutput;
            log_.line("complete " + codeName(c->code) + " status=" + std::to_string(c->completeStatus));
            if (!sendAll(c->fd, frame)) drop(*c);
        }
    }

    void drop(Client& c) {
        if (c.fd < 0) return;
        if (c.unanswered) log_.line("cancel " + codeName(c.code));
        log_.line("close");
        ::close(c.fd);
        c.fd = -1;
        c.opened = false;
        c.unanswered = false;
        c.timer = false;
    }

    void removeClosed() {
        std::vector<std::unique_ptr<Client>> kept;
        for (auto& c : clients_)
            if (c->fd >= 0) kept.push_back(std::move(c));
        clients_.swap(kept);
    }

    zsim_scenario* s_;
    Log& log_;
    std::string path_;
    int listener_ = -1;
    std::vector<std::unique_ptr<Client>> clients_;
};

int usage() {
    std::fprintf(stderr, "usage: driver_sim SOCKET [--scenario FILE] [--set DIRECTIVE]... [--log FILE]\n");
    return 2;
}

bool apply(zsim_scenario* s, const std::string& text, const std::string& where) {
    char error[256] = {0};
    const int bad = zsim_parse_text(s, text.data(), text.size(), error, sizeof error);
    if (bad != 0) {
        std::fprintf(stderr, "driver_sim: %s line %d: %s\n", where.c_str(), bad, error);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    std::string socketPath;
    std::string logPath;
    auto scenario = std::unique_ptr<zsim_scenario>(new zsim_scenario);
    zsim_init(scenario.get());

    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "--scenario" || arg == "--set" || arg == "--log") && i + 1 >= argc) return usage();
        if (arg == "--scenario") {
            std::ifstream in(argv[++i], std::ios::binary);
            if (!in) {
                std::fprintf(stderr, "driver_sim: cannot read %s\n", argv[i]);
                return 2;
            }
            std::stringstream text;
            text << in.rdbuf();
            if (!apply(scenario.get(), text.str(), argv[i])) return 2;
        } else if (arg == "--set") {
            if (!apply(scenario.get(), argv[++i], "--set")) return 2;
        } else if (arg == "--log") {
            logPath = argv[++i];
        } else if (socketPath.empty() && arg.rfind("--", 0) != 0) {
            socketPath = arg;
        } else {
            return usage();
        }
    }
    if (socketPath.empty()) return usage();

    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);

    Log log(logPath);
    Server server(scenario.get(), log);
    if (!server.listenAt(socketPath)) return 1;
    server.run();
    return 0;
}
