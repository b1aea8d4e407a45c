#ifndef QTVERSION_H
#define QTVERSION_H

#include <QGuiApplication>
#include <QNetworkRequest>

// What cannot be written alike for Qt 5.12 and Qt 6. No other file asks for the version of Qt.

/// Screens grow with the fineness of the display, by whole factors. No application object may exist
/// yet.
inline void enableHighDpiScaling()
{
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    QCoreApplication::setAttribute(Qt::AA_EnableHighDpiScaling, true);
#else
    // Qt 6 always scales, but it does not round the factor. Qt 5.12 has no such policy: it rounds.
    // (tst_launch.screenGrowsByWholeFactors)
    QGuiApplication::setHighDpiScaleFactorRoundingPolicy(
        Qt::HighDpiScaleFactorRoundingPolicy::Round);
#endif
}

/// A request whose redirects are left to the caller, over HTTP/1.1.
inline QNetworkRequest requestOf(const QUrl &url)
{
    QNetworkRequest request(url);
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    // Both are the defaults of Qt 5. Qt 5.12 has no attribute of the second name.
    // (tst_downloadredirect::redirectIsFollowed, tst_downloadstart::secureRequestOffersNoHttp2)
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
#endif
    return request;
}

#endif // QTVERSION_H
