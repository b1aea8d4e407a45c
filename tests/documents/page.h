#ifndef PAGE_H
#define PAGE_H

#include <QByteArray>
#include <QByteArrayList>
#include <QVector>

/// A fenced block of a Markdown page.
struct Block {
    QByteArray kind; ///< the word behind the fence
    int line = 0;    ///< of the fence, from 1
    QByteArrayList lines;
};

/// Every fenced block of `page`, in its order.
QVector<Block> fencedBlocks(const QByteArray &page);

/// The cells of a drawn table's row: two blanks or more part them.
QByteArrayList cells(const QByteArray &row);

/// Whether `text` describes `bytes`: hexadecimal bytes with a blank between them. "..." at the end
/// repeats the byte before it as often as it takes; between bytes it leaves bytes out.
bool describes(const QByteArray &text, const QByteArray &bytes);

#endif // PAGE_H
