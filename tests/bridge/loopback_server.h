// An httplib server on 127.0.0.1 with a free port, running on its own thread for the
// life of the object.
#pragma once

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>

class LoopbackServer {
public:
    explicit LoopbackServer(std::unique_ptr<httplib::Server> server = std::make_unique<httplib::Server>())
        : server_(std::move(server)) {}
    ~LoopbackServer() { Stop(); }
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    httplib::Server& operator*() { return *server_; }
    httplib::Server* operator->() { return server_.get(); }

    // Binds (the socket listens from here on, so clients may connect at once) and serves.
    void Start() {
        port_ = server_->bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_->listen_after_bind(); });
    }
    void Stop() {
        if (thread_.joinable()) {
            server_->stop();
            thread_.join();
        }
    }
    int port() const { return port_; }
    std::string Url(const std::string& scheme = "http") const {
        return scheme + "://127.0.0.1:" + std::to_string(port_);
    }

private:
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    int port_ = -1;
};

// A loopback port on which nothing listens: bound to learn a free number, then closed.
inline int ClosedPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    int port = -1;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
        port = ntohs(addr.sin_port);
    }
    ::close(fd);
    return port;
}
