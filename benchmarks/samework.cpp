#include "qtversion.h"

#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QUrl>

#include <cstdio>

// The smallest program that does the same as the program until it waits for a press of the button:
// it lists the same folders and shows the same texts, button and bar. Reference for the start.

namespace {

QStringList listing(const char *command)
{
    QStringList files;
    FILE *const output = popen(command, "r");
    if (!output)
        return files;
    char line[200];
    while (std::fgets(line, sizeof line, output))
        files.append(QString::fromLatin1(line).trimmed());
    pclose(output);
    return files;
}

} // namespace

int main(int argc, char **argv)
{
    enableHighDpiScaling();
    QGuiApplication app(argc, argv);
    QStringList packages = listing("ls /tmp/ota/*.ipk");
    if (packages.isEmpty())
        packages = listing("ls /mnt/nand_disk/update_ipk/*.ipk");
    QQmlApplicationEngine engine;
    engine.rootContext()->setContextProperty(QStringLiteral("packages"), packages);
    engine.load(QUrl(QStringLiteral("qrc:/samework.qml")));
    return engine.rootObjects().isEmpty() ? -1 : QGuiApplication::exec();
}
