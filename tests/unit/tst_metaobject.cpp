#include "fileio.h"

#include <QMetaEnum>
#include <QMetaMethod>
#include <QMetaProperty>
#include <QQmlParserStatus>
#include <QtTest>

#include <type_traits>

namespace {

struct PropertyRow {
    const char *name;
    const char *type;
    bool writable;
    const char *notify;
};

// In the order of the contract.
const PropertyRow kProperties[] = {
    {"url", "QUrl", true, "urlChanged"},
    {"running", "bool", true, "runningChanged"},
    {"progress", "double", false, "progressChanged"},
    {"destination", "QUrl", true, "destinationChanged"},
    {"followRedirects", "bool", true, "followRedirectsChanged"},
    {"overwrite", "bool", true, "overwriteChanged"},
    {"isNewKernel", "bool", false, "isNewKernelChanged"},
    {"kernelData", "QString", false, "kernelDataChanged"},
};

struct MethodRow {
    const char *signature;
    const char *returnType;
    const char *parameters; ///< names, joined with commas
    QMetaMethod::MethodType type;
    QMetaMethod::Access access;
};

constexpr auto kSignal = QMetaMethod::Signal;
constexpr auto kSlot = QMetaMethod::Slot;
constexpr auto kMethod = QMetaMethod::Method;
constexpr auto kPublic = QMetaMethod::Public;
constexpr auto kPrivate = QMetaMethod::Private;

// The position in the table is the index that scripts may hold.
const MethodRow kMethods[] = {
    {"urlChanged()", "void", "", kSignal, kPublic},
    {"cancelChanged()", "void", "", kSignal, kPublic},
    {"runningChanged()", "void", "", kSignal, kPublic},
    {"progressChanged()", "void", "", kSignal, kPublic},
    {"destinationChanged()", "void", "", kSignal, kPublic},
    {"followRedirectsChanged()", "void", "", kSignal, kPublic},
    {"overwriteChanged()", "void", "", kSignal, kPublic},
    {"started()", "void", "", kSignal, kPublic},
    {"finished()", "void", "", kSignal, kPublic},
    {"redirected(QUrl)", "void", "redirectUrl", kSignal, kPublic},
    {"update(int,int)", "void", "kiloBytesReceived,kiloBytesTotal", kSignal, kPublic},
    {"error(int,QString)", "void", "errorCode,errorString", kSignal, kPublic},
    {"networkAccessManagerChanged()", "void", "", kSignal, kPublic},
    {"isNewKernelChanged()", "void", "", kSignal, kPublic},
    {"kernelDataChanged()", "void", "", kSignal, kPublic},
    {"threadExeFinish(int,int)", "void", "result,index", kSignal, kPublic},
    {"start(QUrl)", "void", "url", kSlot, kPublic},
    {"start()", "void", "", kSlot, kPublic},
    {"stop()", "void", "", kSlot, kPublic},
    {"onReadyReadReply()", "void", "", kSlot, kPrivate},
    {"onReadyRead()", "void", "", kSlot, kPrivate},
    {"onFinished()", "void", "", kSlot, kPrivate},
    {"onDownloadProgress(qlonglong,qlonglong)", "void", "bytesReceived,bytesTotal", kSlot,
     kPrivate},
    {"httpGet(QString)", "QString", "url", kMethod, kPublic},
    {"httpPost(QString,QString)", "QString", "url,data", kMethod, kPublic},
    {"md5(QStringList)", "QString", "", kMethod, kPublic},
    {"getIpkList(QString)", "QStringList", "dir", kMethod, kPublic},
    {"exists(QString)", "bool", "file", kMethod, kPublic},
    {"copy(QString,QString)", "bool", "dest_file,src_file", kMethod, kPublic},
    {"exe(QString)", "int", "cmd", kMethod, kPublic},
    {"threadExe(QString,int)", "void", "cmd,index", kMethod, kPublic},
    {"startMcuSoftwareUpdate()", "int", "", kMethod, kPublic},
    {"updateMcu()", "int", "", kMethod, kPublic},
    {"getMcuVersion()", "QString", "", kMethod, kPublic},
    {"getMcuBin()", "QStringList", "", kMethod, kPublic},
    {"closeSerial()", "void", "", kMethod, kPublic},
};

// What the meta-object does not tell: constness.
static_assert(std::is_same_v<decltype(&FileIO::exists), bool (FileIO::*)(QString) const>);
static_assert(std::is_same_v<decltype(&FileIO::copy), bool (FileIO::*)(QString, QString) const>);
static_assert(std::is_same_v<decltype(&FileIO::exe), int (FileIO::*)(QString) const>);
static_assert(std::is_same_v<decltype(&FileIO::md5), QString (FileIO::*)(QStringList)>);
static_assert(std::is_same_v<decltype(&FileIO::getIpkList), QStringList (FileIO::*)(QString)>);
static_assert(std::is_same_v<decltype(&FileIO::threadExe), void (FileIO::*)(QString, int)>);
static_assert(std::is_same_v<decltype(&FileIO::exe2), void (FileIO::*)(QString, int)>);
static_assert(std::is_same_v<decltype(&FileIO::getMcuVersion), QString (FileIO::*)()>);
static_assert(std::is_same_v<decltype(&FileIO::getMcuBin), QStringList (FileIO::*)()>);
static_assert(std::is_same_v<decltype(&FileIO::readKernelData), QString (FileIO::*)()>);
static_assert(std::is_same_v<decltype(&FileIO::ConvKernelCompileDate), void (FileIO::*)(char *)>);

// Two operations with one name.
constexpr int (FileIO::*kCommand)(unsigned char *, unsigned char,
                                  unsigned char *) = &FileIO::serialIoctl;
constexpr int (FileIO::*kExchange)(unsigned char *, unsigned char, unsigned char *,
                                   int) = &FileIO::serialIoctl;
static_assert(!std::is_same_v<decltype(kCommand), decltype(kExchange)>);

static_assert(std::is_base_of_v<QObject, FileIO> && std::is_base_of_v<QQmlParserStatus, FileIO>);
static_assert(std::is_same_v<std::underlying_type_t<FileIO::Error>, unsigned>);
static_assert(std::is_convertible_v<FileIO::Error, int>, "not scoped");

const QMetaObject &meta()
{
    return FileIO::staticMetaObject;
}

QMetaMethod methodAt(int index)
{
    return meta().method(meta().methodOffset() + index);
}

} // namespace

class TestMetaObject : public QObject {
    Q_OBJECT

private slots:
    void classIsFileIO();
    void propertiesStandInOrder_data();
    void propertiesStandInOrder();
    void thereAreNoMoreProperties();
    void methodsStandInOrder_data();
    void methodsStandInOrder();
    void thereAreNoMoreMethods();
    void nativeMembersAreNotPublished_data();
    void nativeMembersAreNotPublished();
    void errorCodesAreAPlainEnumeration();
    void parserStatusIsReachedByBothNames_data();
    void parserStatusIsReachedByBothNames();
    void objectIsItsFirstBase();
};

void TestMetaObject::classIsFileIO()
{
    QCOMPARE(meta().className(), "FileIO");
    QCOMPARE(meta().superClass(), &QObject::staticMetaObject);
    QCOMPARE(meta().classInfoCount(), 0);
    QCOMPARE(meta().constructorCount(), 0);
}

void TestMetaObject::propertiesStandInOrder_data()
{
    QTest::addColumn<int>("index");
    for (std::size_t i = 0; i < std::size(kProperties); ++i)
        QTest::newRow(kProperties[i].name) << static_cast<int>(i);
}

void TestMetaObject::propertiesStandInOrder()
{
    QFETCH(int, index);

    const PropertyRow &expected = kProperties[index];
    const QMetaProperty property = meta().property(meta().propertyOffset() + index);
    QCOMPARE(property.name(), expected.name);
    QCOMPARE(property.typeName(), expected.type);
    QVERIFY(property.isReadable());
    QCOMPARE(property.isWritable(), expected.writable);
    QVERIFY(!property.isResettable());
    QVERIFY(property.isDesignable());
    QVERIFY(property.isScriptable());
    QVERIFY(property.isStored());
    QVERIFY(!property.isUser());
    QVERIFY(!property.isConstant());
    QVERIFY(!property.isFinal());
    QVERIFY(!property.isEnumType());
    QVERIFY(property.hasNotifySignal());
    QCOMPARE(property.notifySignal().name(), QByteArray(expected.notify));
    QCOMPARE(property.notifySignal().parameterCount(), 0);
}

void TestMetaObject::thereAreNoMoreProperties()
{
    QCOMPARE(meta().propertyCount() - meta().propertyOffset(),
             static_cast<int>(std::size(kProperties)));
}

void TestMetaObject::methodsStandInOrder_data()
{
    QTest::addColumn<int>("index");
    for (std::size_t i = 0; i < std::size(kMethods); ++i)
        QTest::newRow(kMethods[i].signature) << static_cast<int>(i);
}

void TestMetaObject::methodsStandInOrder()
{
    QFETCH(int, index);

    const MethodRow &expected = kMethods[index];
    const QMetaMethod method = methodAt(index);
    QCOMPARE(method.methodSignature(), QByteArray(expected.signature));
    QCOMPARE(method.typeName(), expected.returnType);
    QCOMPARE(method.parameterNames().join(','), QByteArray(expected.parameters));
    QCOMPARE(method.methodType(), expected.type);
    QCOMPARE(method.access(), expected.access);
    QCOMPARE(method.revision(), 0);
    QCOMPARE(method.tag(), "");
    // No default arguments, so no clones.
    QVERIFY(!(method.attributes() & QMetaMethod::Cloned));
}

void TestMetaObject::thereAreNoMoreMethods()
{
    QCOMPARE(meta().methodCount() - meta().methodOffset(), static_cast<int>(std::size(kMethods)));
}

void TestMetaObject::nativeMembersAreNotPublished_data()
{
    QTest::addColumn<QByteArray>("name");
    for (const char *name :
         {"exe2", "serialIoctl", "initProtocolV3", "initProtocolV4", "ConvKernelCompileDate",
          "readKernelData", "shutdownNetworkReply", "shutdownSaveFile", "setUrl", "setProgress",
          "classBegin", "componentComplete", "serialPort", "protocolV3", "mcuVersion"})
        QTest::newRow(name) << QByteArray(name);
}

void TestMetaObject::nativeMembersAreNotPublished()
{
    QFETCH(QByteArray, name);

    for (int i = 0; i < meta().methodCount(); ++i)
        QVERIFY(meta().method(i).name() != name);
}

void TestMetaObject::errorCodesAreAPlainEnumeration()
{
    QCOMPARE(meta().enumeratorCount() - meta().enumeratorOffset(), 1);
    const QMetaEnum codes = meta().enumerator(meta().enumeratorOffset());
    QCOMPARE(codes.name(), "Error");
    QCOMPARE(codes.scope(), "FileIO");
    QVERIFY(!codes.isFlag());
    QVERIFY(!codes.isScoped());
    QCOMPARE(codes.keyCount(), 4);
    const char *const keys[] = {"ErrorUnknown", "ErrorUrl", "ErrorDestination", "ErrorNetwork"};
    for (int i = 0; i < 4; ++i) {
        QCOMPARE(codes.key(i), keys[i]);
        QCOMPARE(codes.value(i), i);
    }
}

void TestMetaObject::parserStatusIsReachedByBothNames_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::newRow("class name") << QByteArray("QQmlParserStatus");
    QTest::newRow("identifier") << QByteArray("org.qt-project.Qt.QQmlParserStatus");
}

void TestMetaObject::parserStatusIsReachedByBothNames()
{
    QFETCH(QByteArray, name);

    FileIO fileIO;
    QQmlParserStatus *const part = &fileIO;
    QCOMPARE(fileIO.qt_metacast(name.constData()), static_cast<void *>(part));
    QCOMPARE(qobject_cast<QQmlParserStatus *>(static_cast<QObject *>(&fileIO)), part);
}

void TestMetaObject::objectIsItsFirstBase()
{
    FileIO fileIO;
    QCOMPARE(static_cast<void *>(static_cast<QObject *>(&fileIO)), static_cast<void *>(&fileIO));
    QVERIFY(static_cast<void *>(static_cast<QQmlParserStatus *>(&fileIO))
            != static_cast<void *>(&fileIO));
    QCOMPARE(fileIO.qt_metacast("FileIO"), static_cast<void *>(&fileIO));
    QVERIFY(!fileIO.qt_metacast("SerialPort"));
}

// What still has no body. A method that gets one leaves this list.
QTEST_APPLESS_MAIN(TestMetaObject)
#include "tst_metaobject.moc"
