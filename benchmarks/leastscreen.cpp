#include "qtversion.h"

#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QUrl>

// The smallest program with the imports of the update screen. Reference for start and memory.
int main(int argc, char **argv)
{
    enableHighDpiScaling();
    QGuiApplication app(argc, argv);
    QQmlApplicationEngine engine;
    engine.load(QUrl(QStringLiteral("qrc:/leastscreen.qml")));
    return engine.rootObjects().isEmpty() ? -1 : QGuiApplication::exec();
}
