#include "common/textformat.h"

#include <array>
#include <charconv>

namespace {

// By size class: 1024, 1024^2, 1024^3, 1024^4.
using Units = std::array<const char *, 4>;

constexpr Units suffixes{"КБайт", "МБайт", "ГБайт", "ТБайт"};
constexpr Units byteSuffixes{"КБайт/с", "МБайт/с", "ГБайт/с", "ТБайт/с"};
constexpr Units bitSuffixes{"Кбит/с", "Мбит/с", "Гбит/с", "Тбит/с"};

// -1 below 1024
int sizeClass(long long count)
{
    int found = -1;
    for (int index = 0; index < 4 && count >= 1LL << (10 * (index + 1)); ++index)
        found = index;
    return found;
}

// One decimal as printf rounds it. printf itself would put the locale's comma, and QString rounds otherwise.
QString tenths(double value)
{
    std::array<char, 32> text{};
    const auto end = std::to_chars(text.begin(), text.end(), value, std::chars_format::fixed, 1).ptr;
    return QString::fromLatin1(text.data(), static_cast<int>(end - text.data()));
}

QString inUnits(long long count, const Units &units, const QString &withoutUnit)
{
    const int index = sizeClass(count);
    if (index < 0)
        return withoutUnit.arg(count);

    const double quotient = static_cast<double>(count) / static_cast<double>(1LL << (10 * (index + 1)));
    return tenths(quotient) + QLatin1Char(' ') + QString::fromUtf8(units[static_cast<size_t>(index)]);
}

} // namespace

namespace Global {

QString sizeString(const long long &size)
{
    return inUnits(size, suffixes, QStringLiteral("%1 байт"));
}

QString speedString(const long long &speed)
{
    return QStringLiteral("%1 (%2)").arg(inUnits(speed, byteSuffixes, QStringLiteral("%1 байт/с")),
                                         speedStringBits(speed));
}

QString speedStringBits(const long long &speed)
{
    const auto bits =
        static_cast<long long>(static_cast<unsigned long long>(speed) * 8); // wraps, as 64 bits do
    return inUnits(bits, bitSuffixes, QStringLiteral("%1 бит/с"));
}

QString timeStringSec(const long long &seconds)
{
    if (seconds <= 59)
        return QStringLiteral("%1 сек.").arg(seconds);
    if (seconds <= 3599)
        return QStringLiteral("%1 м. %2 сек.").arg(seconds / 60).arg(seconds % 60);
    return QStringLiteral("%1 ч. %2 м.").arg(seconds / 3600).arg(seconds / 60 % 60);
}

QString declension(int count, const QString &one, const QString &few, const QString &many)
{
    const int lastTwo = count % 100; // negative for a negative count, which thus takes the last form
    const int last = count % 10;
    if (lastTwo >= 10 && lastTwo <= 19)
        return many;
    if (last == 1)
        return one;
    return last >= 2 && last <= 4 ? few : many;
}

QString cut(const QString &text, int length)
{
    if (static_cast<long long>(length) + 3 >= text.length())
        return text;
    return text.left(length) + QLatin1String("...");
}

} // namespace Global
