#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QUrl>

// The least that a program with a screen of the update screen's kind can be: its memory is what
// that of the update screen is compared with.
int main(int argc, char **argv)
{
    QCoreApplication::setAttribute(Qt::AA_EnableHighDpiScaling, true);
    QGuiApplication app(argc, argv);
    QQmlApplicationEngine engine;
    engine.load(QUrl(QStringLiteral("qrc:/leastscreen.qml")));
    return engine.rootObjects().isEmpty() ? -1 : QGuiApplication::exec();
}
