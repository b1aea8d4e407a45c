#include "compiledscreens.h"

#include <QDir>
#include <QFile>
#include <QUrl>
#include <QtQml/qqmlprivate.h>

// Offers the compiled form of each screen to the QML engine. The loader that Qt generates for this
// purpose calls functions that Qt 5.12 does not have. The engine uses a compiled form only when its
// own version of Qt made it; otherwise it reads the source.

namespace {

struct Screen {
    QLatin1String path;
    QQmlPrivate::CachedQmlUnit unit;
};

Screen screen(const char *path, const unsigned char *bytes)
{
    return {QLatin1String(path),
            {reinterpret_cast<const QV4::CompiledData::Unit *>(bytes), nullptr, nullptr}};
}

/// The compiled form for a URL; null when there is none, or when its source is not present.
const QQmlPrivate::CachedQmlUnit *compiledForm(const QUrl &url)
{
    using namespace QmlCacheGeneratedCode;
    static const Screen screens[] = {
        screen("/main.qml", _0x5f__main_qml::qmlData),
        screen("/show.qml", _0x5f__show_qml::qmlData),
        screen("/TqButton.qml", _0x5f__TqButton_qml::qmlData),
        screen("/RectangleProgress.qml", _0x5f__RectangleProgress_qml::qmlData),
    };
    if (url.scheme() != QLatin1String("qrc"))
        return nullptr;
    const QString path = QDir::cleanPath(url.path());
    for (const Screen &each : screens) {
        if (path == each.path)
            return QFile::exists(QLatin1Char(':') + path) ? &each.unit : nullptr;
    }
    return nullptr;
}

void offerCompiledScreens()
{
    QQmlPrivate::RegisterQmlUnitCacheHook hook{0, compiledForm};
    QQmlPrivate::qmlregister(QQmlPrivate::QmlUnitCacheHookRegistration, &hook);
}
Q_CONSTRUCTOR_FUNCTION(offerCompiledScreens)

} // namespace
