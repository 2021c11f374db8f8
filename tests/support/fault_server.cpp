#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "palomir_test/tls.hpp"

namespace palomir_test {

namespace {

constexpr int slice = 20;  // ms between checks for the stop request

bool readable(int socket, int timeoutMs) {
    pollfd entry{socket, POLLIN, 0};
    return poll(&entry, 1, timeoutMs) > 0;
}

}  // namespace

FaultServer::FaultServer(Behaviour behaviour) : _behaviour(std::move(behaviour)) {
    _listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (_listener < 0) throw std::runtime_error("fault server: no socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(_listener, 16) != 0 ||
        getsockname(_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(_listener);
        throw std::runtime_error("fault server: cannot listen");
    }
    _port = ntohs(address.sin_port);
    _acceptor = std::thread([this] { acceptLoop(); });
}

FaultServer::~FaultServer() {
    _stopping = true;
    if (_acceptor.joinable()) _acceptor.join();
    for (auto& worker : _workers)
        if (worker.joinable()) worker.join();
    ::close(_listener);
}

std::string FaultServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(_port) + path;
}

void FaultServer::acceptLoop() {
    while (!_stopping) {
        if (!readable(_listener, slice)) continue;
        const int connection = accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) continue;
        ++_connections;
        std::lock_guard lock(_mutex);
        _workers.emplace_back([this, connection] { serve(connection); });
    }
}

void FaultServer::serve(int socket) {
    // Read the request head; whatever body follows is left unread, so an
    // upload stalls once the socket buffers are full.
    std::string head;
    while (!_stopping && head.find("\r\n\r\n") == std::string::npos) {
        if (!readable(socket, slice)) continue;
        char buffer[4096];
        const ssize_t got = recv(socket, buffer, sizeof buffer, 0);
        if (got <= 0) break;
        head.append(buffer, static_cast<std::size_t>(got));
    }
    const auto& response = _behaviour.response;
    const std::size_t atOnce =
        _behaviour.dripInterval.count() == 0 ? response.size() : std::min(_behaviour.sendAtOnce, response.size());
    bool open = _stopping || atOnce == 0 || send(socket, response.data(), atOnce, MSG_NOSIGNAL) == static_cast<ssize_t>(atOnce);
    for (std::size_t i = atOnce; open && i < response.size(); ++i) {
        for (auto waited = std::chrono::milliseconds(0); waited < _behaviour.dripInterval && !_stopping;
             waited += std::chrono::milliseconds(slice))
            std::this_thread::sleep_for(std::min(std::chrono::milliseconds(slice), _behaviour.dripInterval - waited));
        open = !_stopping && send(socket, &response[i], 1, MSG_NOSIGNAL) == 1;
    }
    while (_behaviour.holdOpen && !_stopping) std::this_thread::sleep_for(std::chrono::milliseconds(slice));
    ::close(socket);
}

}  // namespace palomir_test
