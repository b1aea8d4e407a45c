#ifndef HTTPSERVER_H
#define HTTPSERVER_H

#include <QNetworkAccessManager>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// Sends raw bytes as the reply to every request on a loopback port, in a thread of its own.
class HttpServer {
public:
    HttpServer();
    ~HttpServer();
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;

    std::uint16_t port() const { return m_port; }
    /// The next `count` requests get these pieces, one write each; later ones get nothing. Every
    /// connection is closed after its reply.
    void answer(std::vector<std::string> pieces, int count);

private:
    void serve();
    void serveConnection(int connection);

    int m_listener = -1;
    std::uint16_t m_port = 0;
    std::mutex m_mutex;
    std::vector<std::string> m_pieces;
    int m_left = 0;
    std::thread m_thread;
};

/// Sends every request, whatever its address, to that port: a redirect may name anything.
class LoopbackManager : public QNetworkAccessManager {
public:
    explicit LoopbackManager(std::uint16_t port);

protected:
    QNetworkReply *createRequest(Operation operation, const QNetworkRequest &request,
                                 QIODevice *outgoing) override;

private:
    std::uint16_t m_port;
};

/// The input cut into pieces: byte 0, bits 0 to 1, tells how many (1 to 4).
std::vector<std::string> piecesOfAnswer(const std::uint8_t *data, std::size_t size);

#endif // HTTPSERVER_H
