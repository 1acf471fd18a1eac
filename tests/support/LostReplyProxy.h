#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

// A TCP proxy between MySQL clients and a real server that loses replies on purpose: when the
// server has answered a chosen statement, the proxy closes both connections instead of passing
// the answer on. The server has run (and, in autocommit, committed) the statement; the client
// sees only a lost connection (2013) and its connector repeats the statement on a new
// connection. This is what a connection reset, a failover or a network blip does to a reply.
//
// The proxy reads the protocol just far enough for this: it learns the text of each prepared
// statement from its COM_STMT_PREPARE and the id the server gives it, and watches the
// COM_STMT_EXECUTE (and COM_QUERY) commands that follow. It clears the server's TLS capability
// in the greeting so the conversation stays readable. Everything else is passed on unchanged.
//
// Chosen statements are those whose text begins with one of the given prefixes (compared
// without regard to case). Thread-safe; the drop settings may change while clients run.
class LostReplyProxy {
  public:
    // Listens on a free port of 127.0.0.1 and forwards to host:port. No thread runs before
    // start(), so a test may fork its workers between the two. Throws std::runtime_error.
    LostReplyProxy(const std::string& host, int port);
    // Stops the threads and closes every connection.
    ~LostReplyProxy();
    LostReplyProxy(const LostReplyProxy&) = delete;
    LostReplyProxy& operator=(const LostReplyProxy&) = delete;

    void start();
    int port() const { return port_; }

    // Loses the answers to the next `count` executions of a statement beginning with prefix.
    void dropNext(const std::string& prefix, int count);
    // Loses the answer to each execution of a statement beginning with one of prefixes with the
    // given probability (0..1), drawn from a generator seeded with seed.
    void dropAtRate(const std::vector<std::string>& prefixes, double rate, unsigned seed);
    // Runs in the proxy's thread after the server answered a statement whose answer is lost,
    // before the client's connection is closed: the moment another process would act.
    void onDrop(std::function<void()> action);

    // Answers lost so far.
    int dropped() const { return dropped_.load(); }
    // Client connections accepted so far.
    int connections() const { return connections_.load(); }

  private:
    void acceptLoop();
    void serve(int clientFd);
    bool chosen(const std::string& text);
    void runDropAction();

    std::string host_;
    int serverPort_;
    int listenFd_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> dropped_{0};
    std::atomic<int> connections_{0};
    std::thread acceptThread_;

    std::mutex mutex_;  // guards everything below
    std::vector<std::string> nextPrefixes_;
    int nextCount_ = 0;
    std::vector<std::string> ratePrefixes_;
    double rate_ = 0;
    std::mt19937 random_;
    std::function<void()> dropAction_;
    std::vector<std::thread> sessions_;
};
