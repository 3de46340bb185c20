// The small operations that stand on everybody's way.
#include "bench/channelbench/rows.h"

#include "bench/support/measure.h"
#include "common/directorylayout.h"
#include "common/logformat.h"
#include "common/namefilter.h"
#include "transportIp/ipsettings.h"

#include <QDir>

void Rows::small()
{
    const auto row = [](const char *name, double value) {
        Measure::row("f small", name, variant, "ns/call", value);
    };

    const QString name = QStringLiteral("Узел-связи №12 (North_Gate) Ёлка");
    row("name filter, 32 characters", Measure::nsPerCall([&] { Measure::keep(Global::filterName(name)); }));

    AbonentIpSettings settings;
    settings.address = QStringLiteral("192.168.100.200x");
    QByteArray record;
    row("encode record", Measure::nsPerCall([&] { record = settings.toByteArray(); }));
    row("decode record", Measure::nsPerCall([&] {
            AbonentIpSettings read;
            Measure::keep(read.fromByteArray(record));
        }));

    row("level directory path", Measure::nsPerCall([] { Measure::keep(Global::logDir(2)); }));
    row("time stamp hh:mm:ss.zzz", Measure::nsPerCall([] { Measure::keep(LogFormat::timeStamp()); }));
}
