#include "apptransform.h"

#include <QMatrix4x4>

namespace {

QTransform landscapeToPortrait(QSizeF scene)
{
    QTransform rotation;
    rotation.rotate(270.0, Qt::ZAxis);
    return rotation * QTransform::fromTranslate(0.0, scene.width());
}

} // namespace

AppTransform::AppTransform(QSizeF size)
    : m_transform(landscapeToPortrait(size))
{
}

void AppTransform::applyTo(QMatrix4x4 *matrix) const
{
    *matrix *= QMatrix4x4(m_transform);
}
