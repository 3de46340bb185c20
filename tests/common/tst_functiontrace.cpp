// Trace scopes and measures, each case in a process of its own: the state is found once.
#include "common/functiontrace.h"
#include "common/logwriter.h"
#include "tests/support/forked.h"
#include "tests/support/messagecatcher.h"
#include "tests/support/testinstallation.h"

#include <QtTest>

using namespace TestInstallation;

namespace {

void traced()
{
    TRACE_FUNCTION;
}

} // namespace

class TestFunctionTrace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { clean(); }
    void offKeepsATrail()
    {
        const QString outcome = Forked::text([] {
            MessageCatcher messages;
            for (int i = 1; i <= 70; ++i)
                const _CFunctionDebug scope(QByteArray::number(i).constData());
            const QStringList first = _CFunctionDebug::stack();
            const _CFunctionDebug longName("0123456789", 12, "void f(const char *)");
            const _CFunctionDebug shortName("012345", 7, nullptr);
            traced();
            const QString last = QStringList(_CFunctionDebug::stack().mid(61)).join(QLatin1Char('|'));

            Forked::inThreads(2, [](int) {
                for (int i = 0; i < 50000; ++i)
                    traced();
            });
            const QStringList all = _CFunctionDebug::stack();
            return QStringList{messages.takeAll(),
                               first.first(),
                               first.last(),
                               last,
                               QString::number(all.size()),
                               QString::number(all.count(all.last())),
                               QString::fromUtf8(settings())}
                .join(QLatin1Char(';'));
        });
        QCOMPARE(outcome, ";7;70;6789:12 void f(const char *)|:7 |void {anonymous}::traced();64;64;"
                          "[Debug]\nall=false\n"_s);
    }

    void onWritesEveryScopeAndCategory()
    {
        QVERIFY(writeSettings("[Debug]\nall=true\nipcData=false\n"));
        const QString outcome = Forked::text([] {
            MessageCatcher messages;
            debug("S"_s, "not yet"_s, DebugIpcData, DebugFlagNone);
            traced();
            {
                const _CFunctionDebug outer("012345a%1", 3, "g");
                debug("S"_s, "all"_s, DebugIpcData, DebugFlagNone);
                writeSettings("[Debug]\nall=false\n"); // too late
            }
            return messages.takeAll().remove("\"_CFunctionDebug\" "_s) +
                   QString::number(_CFunctionDebug::stack().size());
        });
        QCOMPARE(outcome, "\"void {anonymous}::traced() {\"|\"void {anonymous}::traced() }\"|\"a%1:3 g {\"|"
                          "\"S\" \"all\"|\"a%1:3 g }\"0"_s);
        QVERIFY(log().contains("          _CFunctionDebug    a%1:3 g {\n"));
    }

    void measuresScopes()
    {
        const QString outcome = Forked::text([] {
            MessageCatcher messages;
            {
                const _CFunctionMeasure quick("quick", false);
            }
            {
                const _CFunctionMeasure always("always", true);
            }
            {
                const _CFunctionMeasure slow("slow", false);
                QThread::msleep(20);
            }
            return messages.takeAll();
        });
        const QRegularExpression expected( // of a scope that took no time only what is always told
            "^(\"_CFunctionMeasure\" \"[1-9]\\d* ms - quick\"\\|)?\"_CFunctionMeasure\" \"\\d+ ms - "
            "always\"\\|"
            "\"_CFunctionMeasure\" \"([2-9]\\d|\\d{3,}) ms - slow\"$"_s);
        QVERIFY2(expected.match(outcome).hasMatch(), qPrintable(outcome));
    }
};

QTEST_GUILESS_MAIN(TestFunctionTrace)
#include "tst_functiontrace.moc"
