#include "host/screen/pathcompletion.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

/// Names that cannot be written as text cannot be typed either.
bool isText(const QString &name)
{
    return !name.contains(QChar::ReplacementCharacter);
}

QString commonStart(const QStringList &names)
{
    QString common = names.first();
    for (const QString &name : names) {
        int same = 0;
        while (same < common.size() && same < name.size() && common[same] == name[same])
            ++same;
        common.truncate(same);
    }
    return common;
}

} // namespace

QString withHome(const QString &typed)
{
    const bool isHome = typed == QLatin1String("~") || typed.startsWith(QLatin1String("~/"));
    return isHome ? QDir::homePath() + typed.mid(1) : typed;
}

PathCompletion PathCompletion::of(const QString &typed)
{
    const int slash = typed.lastIndexOf(QLatin1Char('/'));
    const QString place = typed.left(slash + 1);
    const QString begun = typed.mid(slash + 1);
    const QDir directory(place.isEmpty() ? QStringLiteral(".") : withHome(place));
    QDir::Filters wanted = QDir::AllEntries | QDir::NoDotAndDotDot;
    if (begun.startsWith(QLatin1Char('.')))
        wanted |= QDir::Hidden;

    QStringList names;
    const QFileInfoList entries = directory.entryInfoList(wanted, QDir::Name);
    for (const QFileInfo &entry : entries) {
        if (entry.fileName().startsWith(begun) && isText(entry.fileName()))
            names << entry.fileName() + (entry.isDir() ? QStringLiteral("/") : QString());
    }
    if (names.isEmpty())
        return {typed, {}};
    return {place + commonStart(names), names.size() > 1 ? names : QStringList()};
}
