#include "screenprobe.h"

#include <QGenericPlugin>

#include <memory>

/// What Qt loads into a program started with QT_QPA_GENERIC_PLUGINS=screenprobe.
class ScreenProbePlugin : public QGenericPlugin {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QGenericPluginFactoryInterface_iid FILE "screenprobe.json")

public:
    QObject *create(const QString & /*key*/, const QString & /*settings*/) override
    {
        auto probe = std::make_unique<ScreenProbe>();
        return probe->start() ? probe.release() : nullptr; // the application owns it
    }
};

#include "plugin.moc"
