// What it costs to replace a file safely.
#include "bench/channelbench/rows.h"

#include "bench/support/measure.h"
#include "common/safesaving.h"

#include <QByteArray>

#include <cstdio>
#include <cstdlib>

namespace {

void save(const QString &fileName, const QByteArray &data)
{
    const QString error = Global::safeSaving(fileName, data);
    if (error.isEmpty())
        return;
    std::fprintf(stderr, "channelbench: %s\n", qPrintable(error));
    std::exit(1);
}

} // namespace

void Rows::saving(const QString &directory)
{
    struct Case
    {
        const char *name;
        int size;
        int saves;
    };
    for (const Case &one : {Case{"4 KiB", 4096, 40}, {"1 MiB", 1 << 20, 15}, {"64 MiB", 64 << 20, 3}}) {
        const QString fileName = directory + QStringLiteral("/target");
        const QByteArray data(one.size, 'x');
        save(fileName, data); // the target exists from here on
        std::vector<double> times;
        const double cpu = Measure::cpu();
        for (int i = 0; i < one.saves; ++i) {
            const double begin = Measure::now();
            save(fileName, data);
            times.push_back((Measure::now() - begin) * 1e3);
        }
        const double cpuMs = (Measure::cpu() - cpu) * 1e3 / one.saves;
        Measure::row("e saving", one.name, variant, "ms/save (median)", Measure::quantile(times, 0.5));
        Measure::row("e saving", one.name, variant, "CPU ms/save", cpuMs);
    }
}
