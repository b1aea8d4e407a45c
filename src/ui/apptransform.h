#ifndef APPTRANSFORM_H
#define APPTRANSFORM_H

#include <QQuickItem>
#include <QSizeF>
#include <QTransform>

/// Turns a landscape scene by 270 degrees and shifts it by its width, so that it covers a
/// portrait display: a scene point (x, y) lands at (y, width - x). The caller owns it.
class AppTransform : public QQuickTransform {
public:
    /// `size`: the scene's size in pixels; only the width is used.
    explicit AppTransform(QSizeF size);

    /// Multiplies the transform into `matrix` from the right.
    void applyTo(QMatrix4x4 *matrix) const override;

private:
    QTransform m_transform;
};

#endif // APPTRANSFORM_H
