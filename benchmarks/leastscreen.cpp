#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QUrl>

// The smallest program with a screen like the update screen. Its memory is the reference for that
// of the update screen.
int main(int argc, char **argv)
{
    QCoreApplication::setAttribute(Qt::AA_EnableHighDpiScaling, true);
    QGuiApplication app(argc, argv);
    QQmlApplicationEngine engine;
    engine.load(QUrl(QStringLiteral("qrc:/leastscreen.qml")));
    return engine.rootObjects().isEmpty() ? -1 : QGuiApplication::exec();
}
