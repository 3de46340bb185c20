// `abonent send`: takes what is to be sent into the outbox, and waits for it.
//
// The installation's resident `listen` delivers it. Where there is none, this process takes its place until
// its own messages are through.
#include "host/commands/commands.h"

#include "common/global.h"
#include "host/commands/calltarget.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/csendwatch.h"
#include "host/commands/exitcodes.h"
#include "host/commands/failures.h"
#include "host/console/jsonlines.h"
#include "host/console/printing.h"
#include "host/conversation/transporttasks.h"
#include "host/cprogram.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <arpa/inet.h>
#include <unistd.h>

namespace {

constexpr int takeOverMs = 1000; // how often to look whether the process that delivers is gone

/// The operands as the system has given them: names of files need not be text.
class RawArguments
{
public:
    RawArguments()
    {
        QFile file(QStringLiteral("/proc/self/cmdline"));
        if (file.open(QIODevice::ReadOnly))
            words = file.readAll().split('\0');
    }

    QByteArray bytesOf(const QString &word)
    {
        for (int i = 0; i < words.size(); ++i) {
            if (QFile::decodeName(words[i]) == word)
                return words.takeAt(i); // the next one that reads the same is another one
        }
        return QFile::encodeName(word);
    }

private:
    QList<QByteArray> words;
};

bool isIpAddress(const QString &text)
{
    in6_addr bytes{};
    const QByteArray latin = text.toLatin1();
    return ::inet_pton(AF_INET, latin.constData(), &bytes) == 1 ||
           ::inet_pton(AF_INET6, latin.constData(), &bytes) == 1;
}

/// Whether the word behind the name is an address rather than a file.
bool isAddress(const QString &word, const QString &abonent, CallTarget *target)
{
    CallTarget tried = *target;
    if (word == QLatin1String("-") || word.contains(QChar::ReplacementCharacter) || QFileInfo::exists(word) ||
        QFileInfo(word).isSymLink() || !tried.setAddress(word))
        return false;
    const std::optional<CContact> contact = CContacts().find(abonent);
    const bool isPlain = word.contains(QLatin1Char(':')) || isIpAddress(word);
    if (!isPlain && contact && !contact->address.isEmpty())
        return false;
    *target = tried;
    return true;
}

/// One `send` from the outbox to its end.
class Sending : public QObject
{
public:
    Sending(const CommandLine &asked, const COutboxEntry &accepted, int retries, int failedInputs)
        : line(asked), entry(accepted), failed(failedInputs),
          watch(accepted, retries, asked.has("verbose"), console)
    {
        connect(&watch, &CSendWatch::over, this, &Sending::over);
        connect(&takeOver, &QTimer::timeout, this, &Sending::deliver);
    }

    int run()
    {
        deliver();
        if (isEnded)
            return exitCode;
        watch.begin();
        if (!isEnded)
            QCoreApplication::exec();
        return exitCode;
    }

private:
    /// Tells the resident; where there is none, becomes what it would be.
    void deliver()
    {
        const int level = Global::currentSecrecy();
        if (!lock.tryLock(level)) {
            if (!takeOver.isActive()) {
                TransportTasks::add(level, {TransportTask::Deliver, entry.number});
                interruption = std::make_unique<CInterruption>();
                connect(interruption.get(), &CInterruption::requested, this, &Sending::interrupted);
                takeOver.start(takeOverMs);
            }
            return;
        }
        takeOver.stop();
        interruption.reset();
        program = std::make_unique<CProgram>(line, CProgram::Sender, console);
        connect(&program->interruption, &CInterruption::requested, this, &Sending::interrupted);
        const int code = program->prepare();
        if (code != ExitDone || !program->messenger.keepOnly(CProgram::ipKind)) {
            end(code != ExitDone ? code : ExitTrouble);
            return;
        }
        // The server listens as well, if the port is free. If it is not, that is no concern of a sender.
        if (!line.has("verbose"))
            program->journal.hideRoutine();
        connect(&program->messenger, &CMessenger::closed, qApp, &QCoreApplication::quit);
        program->open(Global::filterName(entry.abonent), entry.number);
    }

    void interrupted(int signalNumber)
    {
        over(ExitInterrupted + signalNumber, QStringLiteral("Ожидание прервано"), true);
    }

    void over(int code, const QString &text, bool isKept)
    {
        if (isEnded)
            return;
        if (!text.isNull())
            console.line(text, code == ExitDone ? CConsole::Results : CConsole::Errors);
        const int result = code == ExitDone && failed > 0 ? int(ExitNotDelivered) : code;
        QJsonObject object = jsonEvent(QStringLiteral("finished"));
        object.insert(QStringLiteral("number"), entry.number);
        object.insert(QStringLiteral("code"), exitWord(result));
        object.insert(QStringLiteral("text"), text);
        object.insert(QStringLiteral("delivered"), watch.storedCount());
        object.insert(QStringLiteral("kept"), isKept && !line.has("now"));
        console.json(object);
        if (isKept && line.has("now")) {
            console.error(withdraw()
                              ? QStringLiteral("Сообщение %1 не доставлено и отозвано").arg(entry.number)
                              : QStringLiteral("Сообщение %1 не доставлено; отзывается").arg(entry.number));
        } else if (isKept) {
            console.error(
                QStringLiteral("Сообщение %1 остается в исходящих и будет доставлено, когда абонент ответит "
                               "(нужен работающий abonent listen). Следить: abonent outbox list; отозвать: "
                               "abonent outbox remove %1")
                    .arg(entry.number));
        }
        end(result);
    }

    bool withdraw()
    {
        if (!lock.isLocked())
            return !TransportTasks::add(Global::currentSecrecy(), {TransportTask::Withdraw, entry.number})
                        .isNull();
        COutboxEntry gone;
        gone.directory = entry.directory;
        return gone.remove();
    }

    void end(int code)
    {
        isEnded = true;
        exitCode = code;
        takeOver.stop();
        if (program && program->messenger.server(CProgram::ipKind))
            program->close();
        else
            QCoreApplication::quit();
    }

    const CommandLine &line;
    const COutboxEntry &entry;
    const int failed; // files that could not be accepted
    CTransportLock lock;
    CConsole console;
    std::unique_ptr<CInterruption> interruption; // while another process delivers
    std::unique_ptr<CProgram> program;           // while this one does
    CSendWatch watch;
    QTimer takeOver;
    bool isEnded = false;
    int exitCode = ExitDone;
};

} // namespace

QString readTarget(const CommandLine &line, CallTarget *target, QStringList *paths)
{
    target->abonent = line.operands[0];
    *paths = line.operands.mid(1);
    if (Global::filterName(target->abonent).isEmpty())
        return QStringLiteral("В имени абонента '%1' нет ни букв, ни цифр").arg(target->abonent);
    if (!paths->isEmpty() && isAddress(paths->first(), target->abonent, target))
        paths->removeFirst();
    if (paths->isEmpty() && !line.has("text"))
        return QStringLiteral("Нечего передавать: укажите файлы, каталоги, - или --text");
    if (!line.has("retry"))
        return QString();
    const QString retries = line.value("retry");
    bool isNumber = true;
    target->retries = retries.isEmpty() ? CallTarget::retryForEver : retries.toInt(&isNumber);
    return isNumber && target->retries >= CallTarget::retryForEver
               ? QString()
               : QStringLiteral("Число повторов задано неверно: %1").arg(retries);
}

int runSend(const CommandLine &line)
{
    CallTarget target;
    QStringList paths;
    const QString mistake = readTarget(line, &target, &paths);
    if (!mistake.isNull())
        return refuse(line, mistake);
    const QStringList texts = line.values("text");

    COutboxWriter writer(Global::currentSecrecy());
    const QString error = writer.begin(target.abonent, target.address, target.port);
    if (!error.isNull())
        return fail(ExitTrouble, error);
    RawArguments raw;
    const CDescriptor standardInput(::dup(STDIN_FILENO));
    int failed = 0;
    const auto note = [&failed](const QString &trouble) {
        if (trouble.isNull())
            return;
        ++failed;
        fail(ExitNotDelivered, QStringLiteral("Не передано: %1").arg(trouble));
    };
    for (const QString &text : texts)
        note(writer.addText(text));
    for (const QString &path : qAsConst(paths))
        note(path == QLatin1String("-") ? writer.addStream(standardInput, "stdin")
                                        : writer.addPath(raw.bytesOf(path)));
    for (const QString &path : writer.leftOut())
        printError(QStringLiteral("Пропущено, это не файл и не каталог: %1").arg(path));
    if (writer.entry().messages.empty())
        return writer.isOutOfResources() ? ExitTrouble : ExitUsage;
    const QString trouble = writer.commit();
    if (!trouble.isNull())
        return fail(ExitTrouble, trouble);
    printNote(QStringLiteral("Принято к отправке: сообщение %1, абонент '%2'")
                  .arg(writer.entry().number, target.abonent));
    if (outputStyle() == OutputStyle::Json) {
        QJsonObject object = jsonEvent(QStringLiteral("accepted"));
        object.insert(QStringLiteral("number"), writer.entry().number);
        object.insert(QStringLiteral("abonent"), target.abonent);
        object.insert(QStringLiteral("size"), writer.entry().size());
        object.insert(QStringLiteral("messages"), int(writer.entry().messages.size()));
        printJsonLine(object);
    }
    return Sending(line, writer.entry(), target.retries, failed).run();
}
