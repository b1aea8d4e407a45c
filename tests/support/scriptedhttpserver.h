#ifndef SCRIPTEDHTTPSERVER_H
#define SCRIPTEDHTTPSERVER_H

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QThread>
#include <QUrl>

#include <memory>

/// What the server does with one request: steps, done in order. A script that has neither closed
/// nor dropped its connection at the end leaves it open for the next request.
class HttpScript {
public:
    struct Step {
        enum Kind { Send, Fill, Hold, Close, Drop };
        Kind kind;
        QByteArray bytes;
        qint64 count;
    };

    /// Sends these bytes as they stand.
    HttpScript &send(const QByteArray &bytes);
    /// Sends `count` bytes of `kFiller`, however many there are, as fast as the client takes them.
    HttpScript &fill(qint64 count);
    /// Sends nothing more until the test has released as many holds of the path.
    HttpScript &hold();
    /// Closes the connection once everything sent has been taken.
    HttpScript &close();
    /// Resets the connection once everything sent has been taken.
    HttpScript &drop();
    /// Goes on with all steps of `next`.
    HttpScript &then(const HttpScript &next);

    /// Answers with a Content-Length.
    static HttpScript fixedLength(const QByteArray &body, int status = 200);
    /// Answers in chunks, one a piece.
    static HttpScript chunked(const QList<QByteArray> &pieces);
    /// Answers without a length: the end of the connection ends the body.
    static HttpScript unknownLength(const QByteArray &body);
    static HttpScript redirect(const QByteArray &location, const QByteArray &body = {},
                               int status = 302);
    /// Only the head of an answer with this Content-Length.
    static HttpScript head(qint64 contentLength, int status = 200);
    /// Takes the request and never answers.
    static HttpScript silence();

    /// The bytes of one chunk.
    static QByteArray chunk(const QByteArray &piece);

    const QList<Step> &steps() const { return m_steps; }

    static constexpr char kFiller = 'f';

private:
    QList<Step> m_steps;
};

/// A request as it came.
struct HttpRequest {
    QByteArray method;
    QByteArray path; ///< with the query
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;

    /// The value of a header, by its name in any case; null when it is not there.
    QByteArray header(const QByteArray &name) const;
};

/// An HTTP server on the loopback interface that does what the test says, in a thread of its own.
/// Its members are called from the test's thread.
class ScriptedHttpServer {
public:
    /// Listens on an ephemeral port.
    ScriptedHttpServer();
    /// Drops what is open and ends the thread.
    ~ScriptedHttpServer();
    ScriptedHttpServer(const ScriptedHttpServer &) = delete;
    ScriptedHttpServer &operator=(const ScriptedHttpServer &) = delete;

    /// What the next request of `path` gets, after those given before; the last one answers every
    /// further request. A path without any is answered with 404 and no body.
    void on(const QByteArray &path, const HttpScript &script);
    /// Lets every request of `path` pass one more of its holds.
    void release(const QByteArray &path);

    QUrl url(const QByteArray &path) const;

    /// The requests in the order of their arrival.
    QList<HttpRequest> requests() const;
    /// Requests of one path.
    int requestCount(const QByteArray &path) const;
    /// Connections that are open now.
    int openConnectionCount() const;
    /// Bytes that the system has taken for the clients so far.
    qint64 bytesSent() const;

private:
    QThread m_thread;
    std::unique_ptr<struct HttpServerState> m_state;
    class HttpListener *m_listener; // ends with the thread
    quint16 m_port = 0;
};

#endif // SCRIPTEDHTTPSERVER_H
