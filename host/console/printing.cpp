#include "host/console/printing.h"

#include "host/text/untrustedtext.h"

#include <cerrno>
#include <cstdio>

namespace {

int gFirstError = 0;

} // namespace

void printLine(const QString &text)
{
    const QByteArray bytes = text.toUtf8() + '\n';
    const bool isPrinted = std::fputs(bytes.constData(), stdout) != EOF && std::fflush(stdout) != EOF;
    if (!isPrinted && gFirstError == 0)
        gFirstError = errno;
}

void printError(const QString &text)
{
    std::fputs((printable(text) + QLatin1Char('\n')).toUtf8().constData(), stderr);
}

int printingError()
{
    return gFirstError;
}
