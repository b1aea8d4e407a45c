#include <QFile>
#include <QResource>
#include <QtTest>

// Nothing here initialises the resources: linking the core library alone must register them.
class TestResources : public QObject {
    Q_OBJECT

private slots:
    void screensStandAtTheRoot_data();
    void screensStandAtTheRoot();
    void updateScreenIsStoredCompressedWithZlib();
};

namespace {

constexpr int kSizePrefix = 4; // uncompressed size, big-endian, ahead of the zlib stream

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

void TestResources::screensStandAtTheRoot_data()
{
    QTest::addColumn<QString>("name");
    for (const char *name : {"main.qml", "show.qml", "TqButton.qml", "RectangleProgress.qml"})
        QTest::newRow(name) << QString::fromLatin1(name);
}

void TestResources::screensStandAtTheRoot()
{
    QFETCH(QString, name);

    const QByteArray source = contentOf(QStringLiteral(QML_SOURCE_DIR "/") + name);
    QVERIFY(!source.isEmpty());
    QCOMPARE(contentOf(QStringLiteral(":/") + name), source);
}

void TestResources::updateScreenIsStoredCompressedWithZlib()
{
    const QResource resource(QStringLiteral(":/main.qml"));
    QVERIFY(resource.isValid());
    const QByteArray stored(reinterpret_cast<const char *>(resource.data()),
                            static_cast<int>(resource.size()));
    const QByteArray content = contentOf(QStringLiteral(":/main.qml"));
    QVERIFY(stored.size() < content.size());
    // Deflate with a 32 KB window: what every zlib stream of this size starts with.
    QCOMPARE(stored.at(kSizePrefix), '\x78');
    QCOMPARE(qUncompress(stored), content);
}

QTEST_APPLESS_MAIN(TestResources)
#include "tst_resources.moc"
