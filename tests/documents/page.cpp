#include "page.h"

namespace {

constexpr char kFence[] = "```";
constexpr char kElision[] = "...";

QByteArray unhex(const QByteArrayList &tokens)
{
    QByteArray bytes;
    for (const QByteArray &token : tokens)
        bytes += token.size() == 2 ? QByteArray::fromHex(token) : QByteArray();
    return bytes;
}

} // namespace

QVector<Block> fencedBlocks(const QByteArray &page)
{
    QVector<Block> blocks;
    bool inside = false;
    int number = 0;
    for (const QByteArray &line : page.split('\n')) {
        ++number;
        if (!line.startsWith(kFence)) {
            if (inside)
                blocks.last().lines << line;
            continue;
        }
        inside = !inside;
        if (inside)
            blocks.append({line.mid(int(sizeof kFence) - 1).trimmed(), number, {}});
    }
    return blocks;
}

QByteArrayList cells(const QByteArray &row)
{
    QByteArrayList cells;
    for (const QByteArray &word : row.split(' ')) {
        if (word.isEmpty())
            cells << QByteArray();
        else if (cells.isEmpty() || cells.last().isEmpty())
            cells << word;
        else
            cells.last() += ' ' + word;
    }
    cells.removeAll(QByteArray());
    return cells;
}

bool describes(const QByteArray &text, const QByteArray &bytes)
{
    const QByteArrayList tokens = text.split(' ');
    const int elision = tokens.indexOf(kElision);
    if (elision < 0)
        return unhex(tokens) == bytes && tokens.size() == bytes.size();

    const QByteArray head = unhex(tokens.mid(0, elision));
    const QByteArray tail = unhex(tokens.mid(elision + 1));
    const int between = bytes.size() - head.size() - tail.size();
    if (head.size() + tail.size() != tokens.size() - 1 || head.isEmpty() || between < 1)
        return false;
    if (!bytes.startsWith(head) || !bytes.endsWith(tail))
        return false;
    return !tail.isEmpty()
        || bytes.mid(head.size()) == QByteArray(between, head.at(head.size() - 1));
}
