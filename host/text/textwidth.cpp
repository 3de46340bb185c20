#include "host/text/textwidth.h"

#include <QStringList>
#include <QTextBoundaryFinder>

#include <algorithm>

#include <uniwidth.h>

namespace {

constexpr uint pictureMark = 0xfe0f; // a symbol of one cell becomes a picture of two

int cellsOfCluster(const QString &cluster)
{
    int cells = 0;
    const auto codes = cluster.toUcs4();
    for (const uint code : codes)
        cells += code == pictureMark ? 1 : std::max(uc_width(code, "UTF-8"), 0);
    return cells;
}

/// What a reader takes for characters.
QStringList clustersOf(const QString &text)
{
    QStringList clusters;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    for (int begin = 0, end = 0; (end = finder.toNextBoundary()) >= 0; begin = end)
        clusters << text.mid(begin, end - begin);
    return clusters;
}

/// As many clusters as fit. @return their cells
template <class Iterator>
int take(Iterator begin, Iterator end, int cells, QStringList *taken)
{
    int used = 0;
    for (; begin != end && used + cellsOfCluster(*begin) <= cells; ++begin) {
        used += cellsOfCluster(*begin);
        taken->append(*begin);
    }
    return used;
}

QString blanks(const QString &text, int cells)
{
    return QString(std::max(cells - cellsOf(text), 0), QLatin1Char(' '));
}

} // namespace

int cellsOf(const QString &text)
{
    int cells = 0;
    const QStringList clusters = clustersOf(text);
    for (const QString &cluster : clusters)
        cells += cellsOfCluster(cluster);
    return cells;
}

QString cutToCells(const QString &text, int cells)
{
    if (cellsOf(text) <= cells)
        return text;
    const QStringList clusters = clustersOf(text);
    QStringList head;
    take(clusters.begin(), clusters.end(), cells - 1, &head);
    return cells < 1 ? QString() : head.join(QString()) + QChar(0x2026);
}

QString shortenedInMiddle(const QString &text, int cells)
{
    if (cellsOf(text) <= cells)
        return text;
    if (cells < 1)
        return QString();
    const QStringList clusters = clustersOf(text);
    QStringList head;
    QStringList tail;
    const int used = take(clusters.rbegin(), clusters.rend(), (cells - 1) / 2, &tail);
    take(clusters.begin(), clusters.end(), cells - 1 - used, &head);
    std::reverse(tail.begin(), tail.end());
    return head.join(QString()) + QChar(0x2026) + tail.join(QString());
}

QString paddedRight(const QString &text, int cells)
{
    return text + blanks(text, cells);
}

QString paddedLeft(const QString &text, int cells)
{
    return blanks(text, cells) + text;
}
