#include "host/settings/settingstext.h"

#include "host/settings/csettingschanges.h"
#include "host/settings/settingstable.h"

#include <QSet>

#include <algorithm>

namespace {

constexpr char firstLine[] = "abonent settings 1";
constexpr char lastLine[] = "end";

bool isPlain(QChar character)
{
    return character != QLatin1Char('%') && character.category() != QChar::Other_Control &&
           character.category() != QChar::Separator_Line &&
           character.category() != QChar::Separator_Paragraph;
}

QByteArray encoded(const QString &value)
{
    QByteArray result;
    for (int i = 0; i < value.size(); ++i) {
        const bool isEdge = (i == 0 || i == value.size() - 1) && value[i].isSpace();
        const int units = value[i].isHighSurrogate() && i + 1 < value.size() ? 2 : 1;
        const QByteArray bytes = value.mid(i, units).toUtf8();
        result += isPlain(value[i]) && !isEdge ? bytes : bytes.toPercentEncoding(QByteArray(), bytes);
        i += units - 1;
    }
    return result;
}

} // namespace

QByteArray SettingsText::exported(QString *trouble)
{
    QByteArray text = QByteArray(firstLine) + '\n';
    CSettingsChanges changes;
    *trouble = QString();
    for (const SettingsOfFile &file : allSettings()) {
        *trouble = trouble->isNull() ? file.trouble : *trouble;
        text += "# " + encoded(file.path) + '\n';
        for (const Setting &setting : file.settings) {
            const QString objection = changes.add(setting.name + QLatin1Char('=') + setting.value);
            *trouble = trouble->isNull() ? objection : *trouble;
            text += setting.name.toUtf8() + '=' + encoded(setting.value) + '\n';
        }
    }
    return trouble->isNull() ? text + lastLine + '\n' : QByteArray();
}

QStringList SettingsText::assignments(const QByteArray &text, QString *trouble)
{
    QStringList result;
    QSet<QString> names;
    QList<QByteArray> lines = text.split('\n');
    for (QByteArray &line : lines)
        line = line.endsWith('\r') ? line.chopped(1) : line;
    lines.removeAll(QByteArray());
    *trouble = QString();
    if (lines.value(0) != firstLine)
        *trouble =
            QStringLiteral("Это не настройки абонента: нет первой строки '%1'").arg(QLatin1String(firstLine));
    else if (lines.last() != lastLine)
        *trouble =
            QStringLiteral("Настройки обрезаны: нет последней строки '%1'").arg(QLatin1String(lastLine));
    if (!trouble->isNull())
        return result;
    for (int i = 1; i < lines.size() - 1; ++i) {
        if (lines[i].startsWith('#'))
            continue;
        const int equals = lines[i].indexOf('=');
        const QString name = QString::fromUtf8(lines[i].left(equals));
        if (equals < 0 || names.contains(name)) {
            *trouble =
                (equals < 0 ? QStringLiteral("Непонятная строка: %1") : QStringLiteral("Ключ %1 повторяется"))
                    .arg(name);
            return QStringList();
        }
        names.insert(name);
        result << name + QLatin1Char('=') +
                      QString::fromUtf8(QByteArray::fromPercentEncoding(lines[i].mid(equals + 1)));
    }
    return result;
}

QStringList SettingsText::differing(const QStringList &assignments)
{
    QSet<QString> current; // and good
    CSettingsChanges changes;
    for (const SettingsOfFile &file : allSettings()) {
        for (const Setting &setting : file.settings) {
            const QString assignment = setting.name + QLatin1Char('=') + setting.value;
            if (changes.add(assignment).isNull())
                current.insert(assignment);
        }
    }
    QStringList result = assignments;
    result.erase(
        std::remove_if(result.begin(), result.end(),
                       [&current](const QString &assignment) { return current.contains(assignment); }),
        result.end());
    return result;
}
