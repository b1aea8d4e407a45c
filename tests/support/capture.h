#ifndef CAPTURE_H
#define CAPTURE_H

#include <QByteArray>
#include <QStringList>

/// Catches what is written to a standard descriptor (by stdio and by children) while it lives.
class DescriptorCapture {
public:
    /// `descriptor`: 1 or 2. Ends the program when it cannot be caught.
    explicit DescriptorCapture(int descriptor);
    ~DescriptorCapture();
    DescriptorCapture(const DescriptorCapture &) = delete;
    DescriptorCapture &operator=(const DescriptorCapture &) = delete;

    /// Ends the capture and returns the whole text; later calls return the same.
    QByteArray take();

private:
    int m_descriptor;
    int m_original;
    int m_file;
    bool m_done = false;
    QByteArray m_text;
};

/// Collects the messages of Qt's debug stream while it lives, without printing them. One at a time.
class MessageCapture {
public:
    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture &) = delete;
    MessageCapture &operator=(const MessageCapture &) = delete;

    /// Those so far, in order.
    QStringList messages() const;
};

#endif // CAPTURE_H
