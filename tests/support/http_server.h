#pragma once

// A web server on the loopback that promises a file and may break off within it.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace gsve::test {

class HttpServer {
public:
    /// Every request gets `bytes`, which are said to be `promised` long.
    HttpServer(std::string bytes, size_t promised) : bytes_(std::move(bytes)), promised_(promised) {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            listen(listener_, 4) != 0 ||
            getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            throw std::runtime_error("no socket on the loopback");
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~HttpServer() {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::string url(const std::string& name) const {
        return "http://127.0.0.1:" + std::to_string(port_) + "/" + name;
    }

private:
    void serve() const {
        for (int connection; (connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            std::string request;
            char part[1024];
            for (ssize_t count; request.find("\r\n\r\n") == request.npos &&
                                (count = recv(connection, part, sizeof part, 0)) > 0;)
                request.append(part, static_cast<size_t>(count));
            send_all(connection,
                     "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
                     "Connection: close\r\nContent-Length: " +
                         std::to_string(promised_) + "\r\n\r\n" + bytes_);
            close(connection);
        }
    }
    static void send_all(int connection, const std::string& text) {
        for (size_t sent = 0; sent < text.size();) {
            const ssize_t count = send(connection, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) return;  // the client has seen enough
            sent += static_cast<size_t>(count);
        }
    }

    std::string bytes_;
    size_t promised_;
    int listener_ = -1;
    int port_ = 0;
    std::thread thread_;
};

}  // namespace gsve::test
