// Trace scopes and measures, with tracing off and on. Each case in a process of its own, since the state is
// found once.
#include "common/functiontrace.h"
#include "common/logwriter.h"
#include "tests/support/forked.h"
#include "tests/support/messagecatcher.h"
#include "tests/support/testinstallation.h"

#include <QThread>
#include <QtTest>

#include <memory>
#include <vector>

using namespace TestInstallation;

namespace {

// What was echoed, without its source.
QString echoOf(const std::function<void()> &work)
{
    MessageCatcher messages;
    work();
    return messages.takeAll().join(QLatin1Char('|')).remove(QStringLiteral("\"_CFunctionDebug\" "));
}

int traced()
{
    TRACE_FUNCTION;
    return 0;
}

} // namespace

class TestFunctionTrace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { clean(); }
    void offKeepsATrail();
    void onWritesEveryScopeAndCategory();
    void measuresScopes();
};

void TestFunctionTrace::offKeepsATrail()
{
    const QString outcome = Forked::text([] {
        const QString said = echoOf([] {
            for (int i = 1; i <= 70; ++i)
                const _CFunctionDebug scope(QByteArray::number(i).constData());
        });
        const QStringList first = _CFunctionDebug::stack();
        const _CFunctionDebug longName("0123456789", 12, "void f(const char *)");
        const _CFunctionDebug shortName("012345", 7, nullptr);
        traced();
        QStringList last = _CFunctionDebug::stack();

        std::vector<std::unique_ptr<QThread>> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back(QThread::create([] {
                for (int k = 0; k < 5000; ++k)
                    traced();
            }));
            threads.back()->start();
        }
        for (const auto &thread : threads)
            thread->wait();
        QStringList all = _CFunctionDebug::stack();
        all.removeDuplicates();
        return QStringList{said,
                           QString::number(first.size()),
                           first.first(),
                           first.last(),
                           QString::number(last.size()),
                           last.mid(61).join(QLatin1Char('|')),
                           all.join(QLatin1Char('|')),
                           QString::fromUtf8(settings())}
            .join(QLatin1Char(';'));
    });
    QCOMPARE(outcome, QStringLiteral(";64;7;70;64;6789:12 void f(const char *)|:7 |int {anonymous}::traced();"
                                     "int {anonymous}::traced();[Debug]\nall=false\n"));
}

void TestFunctionTrace::onWritesEveryScopeAndCategory()
{
    QVERIFY(writeSettings("[Debug]\nall=true\nipcData=false\n"));
    const QString outcome = Forked::text([] {
        return echoOf([] {
                   debug(QStringLiteral("S"), QStringLiteral("not yet"), DebugIpcData, DebugFlagNone);
                   traced();
                   const _CFunctionDebug outer("012345a%1", 3, "g");
                   debug(QStringLiteral("S"), QStringLiteral("all"), DebugIpcData, DebugFlagNone);
                   writeSettings("[Debug]\nall=false\n"); // once per process
               }) +
               QString::number(_CFunctionDebug::stack().size());
    });
    QCOMPARE(outcome,
             QStringLiteral("\"int {anonymous}::traced() {\"|\"int {anonymous}::traced() }\"|\"a%1:3 g {\"|"
                            "\"S\" \"all\"|\"a%1:3 g }\"0"));
    QVERIFY(log().contains("          _CFunctionDebug    a%1:3 g {\n"));
}

void TestFunctionTrace::measuresScopes()
{
    const QString outcome = Forked::text([] {
        return echoOf([] {
            {
                const _CFunctionMeasure quick("quick", false);
            }
            {
                const _CFunctionMeasure always("always", true);
            }
            const _CFunctionMeasure slow("slow", false);
            QThread::msleep(20);
        });
    });
    const QRegularExpression expected(QStringLiteral(
        "^\"_CFunctionMeasure\" \"0 ms - always\"\\|\"_CFunctionMeasure\" \"[2-9]\\d ms - slow\"$"));
    QVERIFY2(expected.match(outcome).hasMatch(), qPrintable(outcome));
}

QTEST_GUILESS_MAIN(TestFunctionTrace)
#include "tst_functiontrace.moc"
