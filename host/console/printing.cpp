#include "host/console/printing.h"

#include "host/text/reasons.h"
#include "host/text/untrustedtext.h"

#include <cerrno>
#include <cstdio>

namespace {

int gFirstError = 0;
OutputStyle gStyle = OutputStyle::Plain;

} // namespace

void setOutputStyle(OutputStyle style)
{
    gStyle = style;
}

OutputStyle outputStyle()
{
    return gStyle;
}

void printLine(const QString &text)
{
    const QByteArray bytes = text.toUtf8() + '\n';
    const bool isPrinted = std::fputs(bytes.constData(), stdout) != EOF && std::fflush(stdout) != EOF;
    if (!isPrinted && gFirstError == 0)
        gFirstError = errno;
}

void printNote(const QString &text)
{
    if (gStyle == OutputStyle::Plain)
        printLine(printable(text));
}

void printError(const QString &text)
{
    std::fputs((printable(explained(text)) + QLatin1Char('\n')).toUtf8().constData(), stderr);
}

int printingError()
{
    return gFirstError;
}
