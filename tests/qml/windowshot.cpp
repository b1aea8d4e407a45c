#include "windowshot.h"

#include <QPixmap>
#include <QQuickWindow>
#include <QScreen>
#include <QSignalSpy>

QImage windowShot(QQuickWindow *window)
{
    QSignalSpy frames(window, &QQuickWindow::frameSwapped);
    window->update();
    if (frames.isEmpty() && !frames.wait())
        return {};
    return window->screen()->grabWindow(window->winId()).toImage();
}
