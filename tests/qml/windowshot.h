#ifndef WINDOWSHOT_H
#define WINDOWSHOT_H

#include <QImage>

class QColor;
class QQuickWindow;

/// Draws a frame and returns what the window then shows, null when none was drawn in time.
/// QQuickWindow::grabWindow() gives nothing with software rendering on the offscreen platform, so
/// the picture is the screen's.
QImage windowShot(QQuickWindow *window);

/// Whether text of this colour is drawn: smoothing makes thin strokes a little darker.
bool hasInk(const QImage &image, const QColor &color);
/// Whether any point is not black.
bool hasInk(const QImage &picture);

#endif // WINDOWSHOT_H
