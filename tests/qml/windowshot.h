#ifndef WINDOWSHOT_H
#define WINDOWSHOT_H

#include <QImage>

class QQuickWindow;

/// Draws a frame and returns what the window then shows, null when none was drawn in time.
/// QQuickWindow::grabWindow() gives nothing with software rendering on the offscreen platform, so
/// the picture is the screen's.
QImage windowShot(QQuickWindow *window);

#endif // WINDOWSHOT_H
