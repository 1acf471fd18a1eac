#include "LostReplyProxy.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <stdexcept>

namespace {

const unsigned char kComQuery = 0x03;
const unsigned char kComStmtPrepare = 0x16;
const unsigned char kComStmtExecute = 0x17;
const unsigned char kComStmtClose = 0x19;
const uint16_t kClientSsl = 0x0800;

std::runtime_error failure(const std::string& what) {
    return std::runtime_error("LostReplyProxy: " + what + ": " + strerror(errno));
}

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

uint32_t le32(const std::string& payload, size_t offset) {
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i)
        value = value << 8 | static_cast<unsigned char>(payload[offset + i]);
    return value;
}

bool startsWithIgnoringCase(const std::string& text, const std::string& prefix) {
    size_t begin = 0;
    while (begin < text.size() && isspace(static_cast<unsigned char>(text[begin]))) ++begin;
    if (text.size() - begin < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i) {
        if (tolower(static_cast<unsigned char>(text[begin + i])) !=
            tolower(static_cast<unsigned char>(prefix[i])))
            return false;
    }
    return true;
}

// The packets of one direction of a MySQL conversation: 3 bytes of length, 1 of sequence
// number, then the payload. Bytes are added as they arrive; whole packets are taken out.
class PacketStream {
  public:
    void add(const char* data, size_t size) { buffer_.append(data, size); }
    // The next whole packet (header included) and its sequence number and payload.
    bool next(std::string& packet, unsigned& sequence, std::string& payload) {
        if (buffer_.size() < 4) return false;
        const size_t length = static_cast<unsigned char>(buffer_[0]) |
                              static_cast<unsigned char>(buffer_[1]) << 8 |
                              static_cast<unsigned char>(buffer_[2]) << 16;
        if (buffer_.size() < 4 + length) return false;
        packet = buffer_.substr(0, 4 + length);
        sequence = static_cast<unsigned char>(buffer_[3]);
        payload = buffer_.substr(4, length);
        buffer_.erase(0, 4 + length);
        return true;
    }

  private:
    std::string buffer_;
};

// Clears the TLS capability in the server's greeting: protocol version, server version up to
// its NUL, 4 bytes of connection id, 8 of scramble, 1 filler, then the low capability bytes.
void clearTlsCapability(std::string& packet) {
    size_t versionEnd = packet.find('\0', 5);
    if (versionEnd == std::string::npos) return;
    size_t flags = versionEnd + 1 + 4 + 8 + 1;
    if (flags + 2 > packet.size()) return;
    uint16_t low = static_cast<unsigned char>(packet[flags]) |
                   static_cast<unsigned char>(packet[flags + 1]) << 8;
    low &= static_cast<uint16_t>(~kClientSsl);
    packet[flags] = static_cast<char>(low & 0xff);
    packet[flags + 1] = static_cast<char>(low >> 8);
}

int connectToServer(const std::string& host, int port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return -1;
    int fd = -1;
    for (addrinfo* a = found; a != nullptr && fd < 0; a = a->ai_next) {
        fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (fd >= 0 && connect(fd, a->ai_addr, a->ai_addrlen) != 0) {
            close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(found);
    return fd;
}

}  // namespace

LostReplyProxy::LostReplyProxy(const std::string& host, int port)
    : host_(host), serverPort_(port), random_(1) {
    listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0) throw failure("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    if (bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listenFd_, 64) != 0 ||
        getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::runtime_error error = failure("listen");
        close(listenFd_);
        throw error;
    }
    port_ = ntohs(address.sin_port);
}

LostReplyProxy::~LostReplyProxy() {
    stopping_ = true;
    shutdown(listenFd_, SHUT_RDWR);
    if (acceptThread_.joinable()) acceptThread_.join();
    close(listenFd_);
    std::vector<std::thread> sessions;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        sessions.swap(sessions_);
    }
    for (std::thread& session : sessions) session.join();
}

void LostReplyProxy::start() {
    acceptThread_ = std::thread([this] { acceptLoop(); });
}

void LostReplyProxy::dropNext(const std::string& prefix, int count) {
    std::lock_guard<std::mutex> guard(mutex_);
    nextPrefixes_ = {prefix};
    nextCount_ = count;
}

void LostReplyProxy::dropAtRate(const std::vector<std::string>& prefixes, double rate,
                                unsigned seed) {
    std::lock_guard<std::mutex> guard(mutex_);
    ratePrefixes_ = prefixes;
    rate_ = rate;
    random_.seed(seed);
}

void LostReplyProxy::onDrop(std::function<void()> action) {
    std::lock_guard<std::mutex> guard(mutex_);
    dropAction_ = std::move(action);
}

// Decides, once per execution, whether its answer is lost.
bool LostReplyProxy::chosen(const std::string& text) {
    std::lock_guard<std::mutex> guard(mutex_);
    for (const std::string& prefix : nextPrefixes_) {
        if (nextCount_ > 0 && startsWithIgnoringCase(text, prefix)) {
            --nextCount_;
            return true;
        }
    }
    for (const std::string& prefix : ratePrefixes_) {
        if (startsWithIgnoringCase(text, prefix)) {
            return std::uniform_real_distribution<double>(0, 1)(random_) < rate_;
        }
    }
    return false;
}

void LostReplyProxy::runDropAction() {
    std::function<void()> action;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        action = dropAction_;
    }
    if (action) action();
}

void LostReplyProxy::acceptLoop() {
    while (!stopping_) {
        int client = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            return;  // shut down
        }
        ++connections_;
        std::lock_guard<std::mutex> guard(mutex_);
        sessions_.emplace_back([this, client] { serve(client); });
    }
}

// One client connection: relays both directions, parsing packets to find the answer to lose.
// The protocol is request and answer, so the first server packet after a chosen command
// (sequence number 1) is its answer.
void LostReplyProxy::serve(int clientFd) {
    int serverFd = connectToServer(host_, serverPort_);
    if (serverFd < 0) {
        close(clientFd);
        return;
    }
    int one = 1;
    setsockopt(serverFd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(clientFd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

    PacketStream fromClient, fromServer;
    std::map<uint32_t, std::string> statements;  // prepared statement id -> text
    std::string preparing;                       // text of a prepare awaiting its answer
    bool awaitingPrepare = false, greeted = false, loseAnswer = false;
    std::string packet, payload;
    unsigned sequence = 0;
    char buffer[65536];
    bool open = true;
    while (open && !stopping_) {
        pollfd fds[2] = {{clientFd, POLLIN, 0}, {serverFd, POLLIN, 0}};
        int ready = poll(fds, 2, 100);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) break;
        if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
            ssize_t n = recv(clientFd, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            fromClient.add(buffer, static_cast<size_t>(n));
            while (open && fromClient.next(packet, sequence, payload)) {
                if (sequence == 0 && !payload.empty()) {
                    const unsigned char command = static_cast<unsigned char>(payload[0]);
                    if (command == kComStmtPrepare) {
                        preparing = payload.substr(1);
                        awaitingPrepare = true;
                    } else if (command == kComStmtExecute && payload.size() >= 5) {
                        auto it = statements.find(le32(payload, 1));
                        loseAnswer = it != statements.end() && chosen(it->second);
                    } else if (command == kComQuery) {
                        loseAnswer = chosen(payload.substr(1));
                    } else if (command == kComStmtClose && payload.size() >= 5) {
                        statements.erase(le32(payload, 1));
                    } else {
                        loseAnswer = false;
                    }
                }
                open = writeAll(serverFd, packet.data(), packet.size());
            }
        }
        if (open && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) {
            ssize_t n = recv(serverFd, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            fromServer.add(buffer, static_cast<size_t>(n));
            while (open && fromServer.next(packet, sequence, payload)) {
                if (!greeted) {
                    greeted = true;
                    clearTlsCapability(packet);
                } else if (sequence == 1 && awaitingPrepare) {
                    awaitingPrepare = false;
                    if (!payload.empty() && payload[0] == 0 && payload.size() >= 5)
                        statements[le32(payload, 1)] = preparing;
                } else if (sequence == 1 && loseAnswer) {
                    ++dropped_;
                    runDropAction();
                    open = false;
                    break;
                }
                open = writeAll(clientFd, packet.data(), packet.size());
            }
        }
    }
    close(serverFd);
    close(clientFd);
}
