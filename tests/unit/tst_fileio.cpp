#include "capture.h"
#include "fileio.h"
#include "pty.h"
#include "serialport.h"

#include <QQmlContext>
#include <QQmlEngine>
#include <QQmlExpression>
#include <QQmlParserStatus>
#include <QtTest>

#include <algorithm>
#include <iterator>
#include <memory>
#include <vector>

namespace {

/// Counts every signal of an object by its name.
class SignalLog {
public:
    explicit SignalLog(FileIO *fileIO)
    {
        const QMetaObject &meta = FileIO::staticMetaObject;
        for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
            if (meta.method(i).methodType() != QMetaMethod::Signal)
                continue;
            const QByteArray signal = '2' + meta.method(i).methodSignature(); // as SIGNAL() does
            m_spies.push_back(std::make_unique<QSignalSpy>(fileIO, signal.constData()));
        }
    }

    /// Names of what was emitted since the last call, sorted, one for each emission.
    QList<QByteArray> take()
    {
        QList<QByteArray> names;
        for (const auto &spy : m_spies) {
            const QByteArray signature = spy->signal();
            for (int i = 0; i < spy->size(); ++i)
                names.append(signature.left(signature.indexOf('(')));
            spy->clear();
        }
        std::sort(names.begin(), names.end());
        return names;
    }

private:
    std::vector<std::unique_ptr<QSignalSpy>> m_spies;
};

template <typename Field>
bool isZero(const Field &field)
{
    return std::all_of(std::begin(field), std::end(field), [](auto value) { return value == 0; });
}

/// Field by field: nobody says what stands between them.
template <typename Record>
bool isZeroRecord(const Record &record)
{
    return record.head == 0 && record.len == 0 && record.type == 0 && isZero(record.addr)
        && isZero(record.block) && record.cmd == 0 && record.arg == 0 && record.opt1 == 0
        && record.opt2 == 0 && record.opt3 == 0 && isZero(record.params) && record.sum == 0
        && record.foot == 0;
}

} // namespace

class TestFileIO : public QObject {
    Q_OBJECT

private slots:
    void freshObjectHasTheDefaults();
    void freshObjectHasNoBoardState();
    void freshObjectAnswersWithAnEmptyText();
    void parentOwnsIt();
    void setterEmitsOnlyOnAChange_data();
    void setterEmitsOnlyOnAChange();
    void progressEmitsOnlyOnAChange();
    void runningFromQmlStartsNoTransfer();
    void stopSetsRunningToFalse();
    void stopOnAFreshObjectDoesNothing();
    void classBeginDoesNothing();
    void completeWithoutRunningStartsNothing();
    void completeStartsWhatRunningAskedFor();
    void engineDoesNotCompleteAContextProperty();
    void shutdownsOfNothingAreHarmless();
    void destructorClosesTheLine();
    void closeSerialClosesTheLine();
};

void TestFileIO::freshObjectHasTheDefaults()
{
    FileIO fileIO;
    QCOMPARE(fileIO.url(), QUrl());
    QCOMPARE(fileIO.running(), false);
    QCOMPARE(fileIO.progress(), 0.0);
    QCOMPARE(fileIO.destination(), QUrl());
    QCOMPARE(fileIO.followRedirects(), false);
    QCOMPARE(fileIO.overwrite(), true);

    QCOMPARE(fileIO.property("url").toUrl(), QUrl());
    QCOMPARE(fileIO.property("running"), QVariant(false));
    QCOMPARE(fileIO.property("progress"), QVariant(0.0));
    QCOMPARE(fileIO.property("destination").toUrl(), QUrl());
    QCOMPARE(fileIO.property("followRedirects"), QVariant(false));
    QCOMPARE(fileIO.property("overwrite"), QVariant(true));
}

void TestFileIO::freshObjectHasNoBoardState()
{
    const FileIO fileIO;
    QVERIFY(fileIO.serialPort());
    QCOMPARE(fileIO.serialPort(), fileIO.serialPort());
    char byte[4];
    QCOMPARE(fileIO.serialPort()->Read(byte, 4), -1);
    QVERIFY(fileIO.mcuVersion().isNull());
    QVERIFY(fileIO.localVersion().isNull());
    QCOMPARE(fileIO.frameStatus(), 0);
    QVERIFY(isZeroRecord(fileIO.frameRecordV3()));
    QVERIFY(isZeroRecord(fileIO.frameRecordV4()));
    QVERIFY(isZero(fileIO.frameRecordV4().ext));
}

void TestFileIO::freshObjectAnswersWithAnEmptyText()
{
    FileIO fileIO;
    fileIO.setRunning(true); // no request is made then
    const QString got = fileIO.httpGet(QString());
    QVERIFY(got.isEmpty() && !got.isNull());
    const QString posted = fileIO.httpPost(QString(), QString());
    QVERIFY(posted.isEmpty() && !posted.isNull());
}

void TestFileIO::parentOwnsIt()
{
    QPointer<FileIO> fileIO;
    {
        QObject parent;
        fileIO = new FileIO(&parent);
        QCOMPARE(fileIO->parent(), &parent);
    }
    QVERIFY(!fileIO);
    QCOMPARE(FileIO().parent(), nullptr);
}

void TestFileIO::setterEmitsOnlyOnAChange_data()
{
    QTest::addColumn<QByteArray>("property");
    QTest::addColumn<QVariant>("initial");
    QTest::addColumn<QVariant>("other");

    const QVariant file(QUrl(QStringLiteral("file:///nowhere/file")));
    QTest::newRow("url") << QByteArray("url") << QVariant(QUrl())
                         << QVariant(QUrl(QStringLiteral("http://127.0.0.1/file")));
    QTest::newRow("destination") << QByteArray("destination") << QVariant(QUrl()) << file;
    QTest::newRow("followRedirects")
        << QByteArray("followRedirects") << QVariant(false) << QVariant(true);
    QTest::newRow("overwrite") << QByteArray("overwrite") << QVariant(true) << QVariant(false);
}

void TestFileIO::setterEmitsOnlyOnAChange()
{
    QFETCH(QByteArray, property);
    QFETCH(QVariant, initial);
    QFETCH(QVariant, other);

    FileIO fileIO;
    SignalLog emitted(&fileIO);
    const QList<QByteArray> nothing;
    const QList<QByteArray> change{property + "Changed"};

    QVERIFY(fileIO.setProperty(property.constData(), initial));
    QCOMPARE(emitted.take(), nothing);
    QVERIFY(fileIO.setProperty(property.constData(), other));
    QCOMPARE(emitted.take(), change);
    QCOMPARE(fileIO.property(property.constData()), other);
    QVERIFY(fileIO.setProperty(property.constData(), other));
    QCOMPARE(emitted.take(), nothing);
    QVERIFY(fileIO.setProperty(property.constData(), initial));
    QCOMPARE(emitted.take(), change);
    QCOMPARE(fileIO.property(property.constData()), initial);
}

void TestFileIO::progressEmitsOnlyOnAChange()
{
    FileIO fileIO;
    SignalLog emitted(&fileIO);
    fileIO.setProgress(0.0);
    QCOMPARE(emitted.take(), QList<QByteArray>());
    fileIO.setProgress(0.5);
    QCOMPARE(emitted.take(), QList<QByteArray>{"progressChanged"});
    fileIO.setProgress(0.5);
    QCOMPARE(emitted.take(), QList<QByteArray>());
    QCOMPARE(fileIO.property("progress"), QVariant(0.5));
    QVERIFY(!fileIO.setProperty("progress", 0.7));
    QCOMPARE(fileIO.progress(), 0.5);
}

void TestFileIO::runningFromQmlStartsNoTransfer()
{
    QQmlEngine engine;
    FileIO fileIO(&engine);
    engine.rootContext()->setContextProperty(QStringLiteral("fileIO"), &fileIO);
    SignalLog emitted(&fileIO);
    QQmlExpression script(engine.rootContext(), nullptr, QStringLiteral("fileIO.running = true"));

    DescriptorCapture out(1);
    script.evaluate();
    out.take();
    QVERIFY2(!script.hasError(), qPrintable(script.error().toString()));
    QCOMPARE(fileIO.running(), true);
    QCOMPARE(emitted.take(), QList<QByteArray>{"runningChanged"});
    QCOMPARE(fileIO.progress(), 0.0);

    DescriptorCapture again(1);
    script.evaluate();
    QCOMPARE(again.take(), QByteArray());
    QCOMPARE(emitted.take(), QList<QByteArray>());
}

void TestFileIO::stopSetsRunningToFalse()
{
    FileIO fileIO;
    DescriptorCapture out(1);
    fileIO.setRunning(true);
    out.take();
    SignalLog emitted(&fileIO);
    fileIO.stop();
    QCOMPARE(fileIO.running(), false);
    QCOMPARE(emitted.take(), QList<QByteArray>{"runningChanged"});
}

void TestFileIO::stopOnAFreshObjectDoesNothing()
{
    FileIO fileIO;
    SignalLog emitted(&fileIO);
    fileIO.stop();
    QCOMPARE(emitted.take(), QList<QByteArray>());
}

void TestFileIO::classBeginDoesNothing()
{
    FileIO fileIO;
    SignalLog emitted(&fileIO);
    DescriptorCapture out(1);
    static_cast<QQmlParserStatus &>(fileIO).classBegin();
    QCOMPARE(out.take(), QByteArray());
    QCOMPARE(emitted.take(), QList<QByteArray>());
}

void TestFileIO::completeWithoutRunningStartsNothing()
{
    FileIO fileIO;
    SignalLog emitted(&fileIO);
    static_cast<QQmlParserStatus &>(fileIO).componentComplete();
    QCOMPARE(emitted.take(), QList<QByteArray>());
    QCOMPARE(fileIO.running(), false);
}

void TestFileIO::completeStartsWhatRunningAskedFor()
{
    FileIO fileIO;
    fileIO.setRunning(true);
    SignalLog emitted(&fileIO);
    // There is nothing to fetch, which only a start can find out.
    static_cast<QQmlParserStatus &>(fileIO).componentComplete();
    QCOMPARE(emitted.take(), QList<QByteArray>{"error"});
}

void TestFileIO::engineDoesNotCompleteAContextProperty()
{
    QQmlEngine engine;
    FileIO fileIO(&engine);
    fileIO.setRunning(true);
    SignalLog emitted(&fileIO);
    engine.rootContext()->setContextProperty(QStringLiteral("fileIO"), &fileIO);
    QQmlExpression script(engine.rootContext(), nullptr, QStringLiteral("fileIO.overwrite"));
    const QVariant overwrite = script.evaluate();
    QCoreApplication::processEvents();
    QCOMPARE(emitted.take(), QList<QByteArray>());
    QCOMPARE(overwrite, QVariant(true));
}

void TestFileIO::shutdownsOfNothingAreHarmless()
{
    FileIO fileIO;
    SignalLog emitted(&fileIO);
    fileIO.shutdownNetworkReply();
    fileIO.shutdownSaveFile();
    QCOMPARE(emitted.take(), QList<QByteArray>());
}

void TestFileIO::destructorClosesTheLine()
{
    Pty line;
    {
        FileIO fileIO;
        QVERIFY(fileIO.serialPort()->Open(line.path().constData(), nullptr));
        QVERIFY(line.isOpenedByProduct());
    }
    QVERIFY(!line.isOpenedByProduct());
}

void TestFileIO::closeSerialClosesTheLine()
{
    Pty line;
    FileIO fileIO;
    fileIO.closeSerial();
    QVERIFY(fileIO.serialPort()->Open(line.path().constData(), nullptr));
    QVERIFY(line.isOpenedByProduct());
    fileIO.closeSerial();
    QVERIFY(!line.isOpenedByProduct());
    fileIO.closeSerial();
}

QTEST_GUILESS_MAIN(TestFileIO)
#include "tst_fileio.moc"
