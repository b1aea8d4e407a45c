#include "windowshot.h"

#include <QColor>
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

bool hasInk(const QImage &image, const QColor &color)
{
    constexpr int kSmoothing = 48;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QRgb pixel = image.pixel(x, y);
            if (qAbs(qRed(pixel) - color.red()) < kSmoothing
                && qAbs(qGreen(pixel) - color.green()) < kSmoothing
                && qAbs(qBlue(pixel) - color.blue()) < kSmoothing)
                return true;
        }
    }
    return false;
}

bool hasInk(const QImage &picture)
{
    QImage blank(picture.size(), picture.format());
    blank.fill(Qt::black);
    return picture != blank;
}
