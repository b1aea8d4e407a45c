#include "httpserver.h"

#include "check.h"

#include <QNetworkProxy>
#include <QNetworkRequest>
#include <QUrl>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kRequestMs = 1000;

sockaddr *address(sockaddr_in &in)
{
    return reinterpret_cast<sockaddr *>(&in);
}

} // namespace

HttpServer::HttpServer()
    : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in loopback{};
    socklen_t size = sizeof loopback;
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    CHECK(bind(m_listener, address(loopback), size) == 0 && listen(m_listener, 64) == 0);
    CHECK(getsockname(m_listener, address(loopback), &size) == 0);
    m_port = ntohs(loopback.sin_port);
    m_thread = std::thread(&HttpServer::serve, this);
}

HttpServer::~HttpServer()
{
    shutdown(m_listener, SHUT_RDWR);
    m_thread.join();
    close(m_listener);
}

void HttpServer::answer(std::vector<std::string> pieces, int count)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_pieces = std::move(pieces);
    m_left = count;
}

void HttpServer::serve()
{
    for (int connection; (connection = accept(m_listener, nullptr, nullptr)) >= 0;) {
        serveConnection(connection);
        close(connection);
    }
}

void HttpServer::serveConnection(int connection)
{
    // Sends each piece at once.
    const int on = 1;
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::string request;
    while (request.find("\r\n\r\n") == std::string::npos) {
        pollfd readable{connection, POLLIN, 0};
        char block[4096];
        const ssize_t count =
            poll(&readable, 1, kRequestMs) > 0 ? recv(connection, block, sizeof block, 0) : 0;
        if (count <= 0)
            return;
        request.append(block, static_cast<std::size_t>(count));
    }
    std::vector<std::string> pieces;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_left > 0)
            pieces = m_pieces;
        --m_left;
    }
    for (const std::string &piece : pieces)
        send(connection, piece.data(), piece.size(), MSG_NOSIGNAL);
    shutdown(connection, SHUT_WR);
}

LoopbackManager::LoopbackManager(std::uint16_t port)
    : m_port(port)
{
    setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
}

QNetworkReply *LoopbackManager::createRequest(Operation operation, const QNetworkRequest &request,
                                              QIODevice *outgoing)
{
    QNetworkRequest local(request);
    QUrl url;
    url.setScheme(QStringLiteral("http"));
    url.setHost(QStringLiteral("127.0.0.1"));
    url.setPort(m_port);
    url.setPath(QStringLiteral("/"));
    local.setUrl(url);
    return QNetworkAccessManager::createRequest(operation, local, outgoing);
}

std::vector<std::string> piecesOfAnswer(const std::uint8_t *data, std::size_t size)
{
    const std::string text(data + 1, data + size);
    const std::size_t length = text.size() / (1U + (data[0] & 3U)) + 1;
    std::vector<std::string> pieces;
    for (std::size_t start = 0; start < text.size(); start += length)
        pieces.push_back(text.substr(start, length));
    return pieces;
}
