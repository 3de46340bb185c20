// The small operations in the ways that suggest themselves: the plain Qt way and the shortest one.
#include "bench/peers/loglines.h"
#include "bench/peers/role.h"
#include "bench/support/measure.h"

#include <QDataStream>
#include <QDir>
#include <QRegExp>
#include <QTime>

#include <array>
#include <utility>

namespace {

constexpr char area[] = "f small";

void row(const char *name, const char *variant, double value)
{
    Measure::row(area, name, variant, "ns/call", value);
}

/// For each UTF-16 unit its small letter, 0 for what a name loses.
std::array<char16_t, 0x460> nameTable()
{
    std::array<char16_t, 0x460> table{};
    const auto range = [&table](char16_t first, char16_t last, int step) {
        for (char16_t unit = first; unit <= last; ++unit)
            table.at(unit) = char16_t(unit + step);
    };
    range(u'0', u'9', 0);
    range(u'a', u'z', 0);
    range(u'A', u'Z', 32);
    range(u'а', u'я', 0);
    range(u'А', u'Я', 32);
    table[u'ё'] = table[u'Ё'] = u'ё';
    return table;
}

void nameFilter()
{
    const QString name = QStringLiteral("Узел-связи №12 (North_Gate) Ёлка");
    const auto table = nameTable();
    row("name filter, 32 characters", "table scan", Measure::nsPerCall([&] {
            QString result(name.size(), Qt::Uninitialized);
            QChar *out = result.data();
            int size = 0;
            for (const QChar character : name) {
                const char16_t unit = character.unicode() < table.size() ? table[character.unicode()] : u'\0';
                out[size] = QChar(unit);
                size += unit != 0 ? 1 : 0;
            }
            result.truncate(size);
            Measure::keep(result);
        }));

    const QRegExp others(
        QStringLiteral("[^A-Za-z0-9ЁЙЦУКЕНГШЩЗХЪФЫВАПРОЛДЖЭЯЧСМИТЬБЮёйцукенгшщзхъфывапролджэячсмитьбю]"));
    row("name filter, 32 characters", "kept QRegExp", Measure::nsPerCall([&] {
            QString result = name;
            Measure::keep(result.remove(others).toLower());
        }));
}

void records()
{
    const QString address = QStringLiteral("192.168.100.200x");
    QByteArray record;
    const auto encode = [&address] {
        QByteArray bytes;
        QDataStream stream(&bytes, QIODevice::WriteOnly);
        stream << qint32(2) << address << qint32(18001);
        return bytes;
    };
    row("encode record", "QDataStream", Measure::nsPerCall([&] { record = encode(); }));
    row("decode record", "QDataStream", Measure::nsPerCall([&] {
            QDataStream stream(record);
            qint32 version = 0;
            qint32 port = 0;
            QString text;
            stream >> version >> text >> port;
            Measure::keep(port);
            Measure::keep(text);
        }));
}

void levelPath()
{
    const QDir root(QStringLiteral("/opt/station"));
    row("level directory path", "QDir chain", Measure::nsPerCall([&root] {
            const QDir data(root.absoluteFilePath(QStringLiteral("data/")));
            const QDir level(data.absoluteFilePath(QStringLiteral("%1/").arg(2)));
            Measure::keep(QDir(level.absoluteFilePath(QStringLiteral("log/"))));
        }));
    const QString rootPath = root.absolutePath();
    row("level directory path", "string join", Measure::nsPerCall([&rootPath] {
            Measure::keep(
                QString(rootPath + QStringLiteral("/data/") + QString::number(2) + QStringLiteral("/log")));
        }));
}

void timeStamps()
{
    constexpr char name[] = "time stamp hh:mm:ss.zzz";
    row(name, "cached second", Measure::nsPerCall([] {
            std::array<char, 12> stamp{};
            LogLines::timeStamp(stamp.data());
            Measure::keep(stamp);
        }));
    row(name, "QTime::toString", Measure::nsPerCall([] {
            Measure::keep(QTime::currentTime().toString(QStringLiteral("hh:mm:ss.zzz")));
        }));
}

const Role role("small all", "", [](const Arguments &) {
    nameFilter();
    records();
    levelPath();
    timeStamps();
    return 0;
});

} // namespace
