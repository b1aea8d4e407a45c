#include "scriptedhttpserver.h"

#include <QMap>
#include <QMutex>
#include <QMutexLocker>
#include <QTcpServer>
#include <QTcpSocket>

#include <sys/socket.h>

namespace {

constexpr qint64 kUnsentLimit = 256LL * 1024; // what a connection holds for a slow client

QByteArray statusLine(int status)
{
    // Clients do not look at the reason.
    return "HTTP/1.1 " + QByteArray::number(status) + " Scripted\r\n";
}

} // namespace

HttpScript &HttpScript::send(const QByteArray &bytes)
{
    m_steps.append({Step::Send, bytes, 0});
    return *this;
}

HttpScript &HttpScript::fill(qint64 count)
{
    m_steps.append({Step::Fill, {}, count});
    return *this;
}

HttpScript &HttpScript::hold()
{
    m_steps.append({Step::Hold, {}, 0});
    return *this;
}

HttpScript &HttpScript::close()
{
    m_steps.append({Step::Close, {}, 0});
    return *this;
}

HttpScript &HttpScript::drop()
{
    m_steps.append({Step::Drop, {}, 0});
    return *this;
}

HttpScript &HttpScript::then(const HttpScript &next)
{
    m_steps += next.m_steps;
    return *this;
}

HttpScript HttpScript::fixedLength(const QByteArray &body, int status)
{
    return head(body.size(), status).send(body);
}

HttpScript HttpScript::chunked(const QList<QByteArray> &pieces)
{
    HttpScript script;
    script.send(statusLine(200) + "Transfer-Encoding: chunked\r\n\r\n");
    for (const QByteArray &piece : pieces)
        script.send(chunk(piece));
    return script.send(chunk({}));
}

HttpScript HttpScript::unknownLength(const QByteArray &body)
{
    return HttpScript().send(statusLine(200) + "Connection: close\r\n\r\n").send(body).close();
}

HttpScript HttpScript::redirect(const QByteArray &location, const QByteArray &body, int status)
{
    return HttpScript()
        .send(statusLine(status) + "Location: " + location
              + "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n")
        .send(body);
}

HttpScript HttpScript::head(qint64 contentLength, int status)
{
    return HttpScript().send(statusLine(status)
                             + "Content-Length: " + QByteArray::number(contentLength) + "\r\n\r\n");
}

HttpScript HttpScript::silence()
{
    return {};
}

QByteArray HttpScript::chunk(const QByteArray &piece)
{
    return QByteArray::number(piece.size(), 16) + "\r\n" + piece + "\r\n";
}

QByteArray HttpRequest::header(const QByteArray &name) const
{
    for (const auto &header : headers) {
        if (header.first.toLower() == name.toLower())
            return header.second;
    }
    return {};
}

/// What the test's thread and the server's share.
struct HttpServerState {
    QMutex mutex; // guards the rest
    QMap<QByteArray, QList<HttpScript>> scripts;
    QMap<QByteArray, int> releasedHolds;
    QList<HttpRequest> requests;
    int openConnections = 0;
    qint64 bytesSent = 0;

    /// Records the request and takes its script.
    HttpScript scriptFor(const HttpRequest &request)
    {
        const QMutexLocker lock(&mutex);
        requests.append(request);
        QList<HttpScript> &ofPath = scripts[request.path];
        if (ofPath.isEmpty())
            return HttpScript::fixedLength({}, 404);
        return ofPath.size() > 1 ? ofPath.takeFirst() : ofPath.first();
    }

    int holdsReleased(const QByteArray &path)
    {
        const QMutexLocker lock(&mutex);
        return releasedHolds.value(path);
    }
};

/// One client. Lives in the server's thread, as a child of the listener.
class HttpConnection : public QObject {
    Q_OBJECT

public:
    HttpConnection(HttpServerState *state, QTcpSocket *socket, QObject *parent)
        : QObject(parent)
        , m_state(state)
        , m_socket(socket)
    {
        m_socket->setParent(this);
        m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        connect(m_socket, &QTcpSocket::readyRead, this, &HttpConnection::read);
        connect(m_socket, &QTcpSocket::bytesWritten, this, [this](qint64 count) {
            countSent(count);
            proceed();
        });
        connect(m_socket, &QTcpSocket::disconnected, this, &HttpConnection::end);
        const QMutexLocker lock(&m_state->mutex);
        ++m_state->openConnections;
    }

    ~HttpConnection() override
    {
        m_socket->disconnect(this); // closing it now must not come back here
    }

public slots:
    /// Does as many steps as it can for now.
    void proceed()
    {
        while (m_answering && m_step < m_script.steps().size()) {
            if (!doStep(m_script.steps().at(m_step)))
                return;
            ++m_step;
        }
        if (!m_answering)
            return;
        m_answering = false;
        read(); // a client may have sent its next request already
    }

private slots:
    void read()
    {
        m_received += m_socket->readAll();
        if (m_answering || !takeRequest())
            return;
        m_script = m_state->scriptFor(m_request);
        m_step = 0;
        m_holds = 0;
        m_filled = 0;
        m_answering = true;
        proceed();
    }

    void end()
    {
        m_answering = false;
        {
            const QMutexLocker lock(&m_state->mutex);
            --m_state->openConnections;
        }
        deleteLater();
    }

private:
    void countSent(qint64 count)
    {
        const QMutexLocker lock(&m_state->mutex);
        m_state->bytesSent += count;
    }

    /// False when the step has to wait.
    bool doStep(const HttpScript::Step &step)
    {
        switch (step.kind) {
        case HttpScript::Step::Send:
            m_socket->write(step.bytes);
            return true;
        case HttpScript::Step::Fill:
            return fill(step.count);
        case HttpScript::Step::Hold:
            if (m_state->holdsReleased(m_request.path) <= m_holds)
                return false;
            ++m_holds;
            return true;
        case HttpScript::Step::Close:
            m_socket->disconnectFromHost();
            return true;
        case HttpScript::Step::Drop:
            if (m_socket->bytesToWrite() > 0)
                return false;
            reset();
            return true;
        }
        return true;
    }

    void reset()
    {
        const linger noLinger = {1, 0}; // makes closing it a reset
        setsockopt(static_cast<int>(m_socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &noLinger,
                   sizeof noLinger);
        m_socket->abort();
    }

    bool fill(qint64 count)
    {
        static const QByteArray block(64 * 1024, HttpScript::kFiller);
        while (m_filled < count) {
            if (m_socket->bytesToWrite() >= kUnsentLimit)
                return false;
            m_filled +=
                m_socket->write(block.constData(), qMin<qint64>(block.size(), count - m_filled));
        }
        m_filled = 0;
        return true;
    }

    /// Takes one whole request from what was received; false while there is none.
    bool takeRequest()
    {
        const int headEnd = m_received.indexOf("\r\n\r\n");
        if (headEnd < 0)
            return false;
        QList<QByteArray> lines = m_received.left(headEnd).split('\n');
        const QList<QByteArray> words = lines.takeFirst().trimmed().split(' ');
        HttpRequest request;
        request.method = words.value(0);
        request.path = words.value(1);
        for (const QByteArray &line : lines) {
            const int colon = line.indexOf(':');
            request.headers.append({line.left(colon), line.mid(colon + 1).trimmed()});
        }
        const int bodyStart = headEnd + 4;
        const int bodySize = request.header("Content-Length").toInt();
        if (m_received.size() < bodyStart + bodySize)
            return false;
        request.body = m_received.mid(bodyStart, bodySize);
        m_received.remove(0, bodyStart + bodySize);
        m_request = request;
        return true;
    }

    HttpServerState *m_state;
    QTcpSocket *m_socket;
    QByteArray m_received;
    HttpRequest m_request;
    HttpScript m_script;
    bool m_answering = false;
    int m_step = 0;
    int m_holds = 0;
    qint64 m_filled = 0;
};

/// Lives in the server's thread.
class HttpListener : public QObject {
    Q_OBJECT

public:
    explicit HttpListener(HttpServerState *state)
        : m_state(state)
        , m_tcp(this)
    {
        connect(&m_tcp, &QTcpServer::newConnection, this, &HttpListener::accept);
    }

    Q_INVOKABLE quint16 listen()
    {
        if (!m_tcp.listen(QHostAddress::LocalHost))
            qFatal("cannot listen on the loopback interface");
        return m_tcp.serverPort();
    }

    Q_INVOKABLE void proceed()
    {
        for (HttpConnection *connection : findChildren<HttpConnection *>())
            connection->proceed();
    }

private:
    void accept()
    {
        while (QTcpSocket *socket = m_tcp.nextPendingConnection())
            new HttpConnection(m_state, socket, this);
    }

    HttpServerState *m_state;
    QTcpServer m_tcp;
};

ScriptedHttpServer::ScriptedHttpServer()
    : m_state(std::make_unique<HttpServerState>())
    , m_listener(new HttpListener(m_state.get()))
{
    m_listener->moveToThread(&m_thread);
    QObject::connect(&m_thread, &QThread::finished, m_listener, &QObject::deleteLater);
    m_thread.start();
    QMetaObject::invokeMethod(m_listener, "listen", Qt::BlockingQueuedConnection,
                              Q_RETURN_ARG(quint16, m_port));
}

ScriptedHttpServer::~ScriptedHttpServer()
{
    m_thread.quit();
    m_thread.wait();
}

void ScriptedHttpServer::on(const QByteArray &path, const HttpScript &script)
{
    const QMutexLocker lock(&m_state->mutex);
    m_state->scripts[path].append(script);
}

void ScriptedHttpServer::release(const QByteArray &path)
{
    {
        const QMutexLocker lock(&m_state->mutex);
        ++m_state->releasedHolds[path];
    }
    QMetaObject::invokeMethod(m_listener, "proceed", Qt::QueuedConnection);
}

QUrl ScriptedHttpServer::url(const QByteArray &path) const
{
    return QUrl::fromEncoded("http://127.0.0.1:" + QByteArray::number(m_port) + path);
}

QList<HttpRequest> ScriptedHttpServer::requests() const
{
    const QMutexLocker lock(&m_state->mutex);
    return m_state->requests;
}

int ScriptedHttpServer::requestCount(const QByteArray &path) const
{
    int count = 0;
    for (const HttpRequest &request : requests())
        count += request.path == path ? 1 : 0;
    return count;
}

int ScriptedHttpServer::openConnectionCount() const
{
    const QMutexLocker lock(&m_state->mutex);
    return m_state->openConnections;
}

qint64 ScriptedHttpServer::bytesSent() const
{
    const QMutexLocker lock(&m_state->mutex);
    return m_state->bytesSent;
}

#include "scriptedhttpserver.moc"
