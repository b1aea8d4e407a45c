#ifndef VIEWTEST_H
#define VIEWTEST_H

#include "capture.h"

#include <QQuickItem>
#include <QQuickView>
#include <QtTest>

#include <memory>

/// What every test of a single QML file starts and ends with: a view of it, and no message on the
/// console.
class ViewTest : public QObject {
    Q_OBJECT

protected:
    /// Loads the file. Fails the test when it cannot be created.
    void load(const char *source)
    {
        m_console = std::make_unique<MessageCapture>();
        m_view = std::make_unique<QQuickView>();
        m_view->setSource(QUrl(QString::fromLatin1(source)));
        QVERIFY(root());
    }
    void show()
    {
        m_view->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_view.get()));
    }
    /// What the file creates.
    QQuickItem *root() const { return m_view->rootObject(); }

    std::unique_ptr<QQuickView> m_view;

private slots:
    void cleanup()
    {
        m_view.reset();
        const QStringList messages = m_console->messages();
        m_console.reset();
        QCOMPARE(messages, QStringList());
    }

private:
    std::unique_ptr<MessageCapture> m_console;
};

#endif // VIEWTEST_H
