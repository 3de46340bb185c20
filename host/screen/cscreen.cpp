#include "host/screen/cscreen.h"

#include "common/global.h"
#include "host/commands/calltarget.h"
#include "host/commands/exitcodes.h"
#include "host/console/printing.h"
#include "host/conversation/transporttasks.h"
#include "host/screen/residentprocess.h"
#include "host/text/reasons.h"

#include <QCoreApplication>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <unistd.h>

namespace {

std::atomic<CScreen *> gScreen{nullptr};
QtMessageHandler gHandlerBefore = nullptr;

/// Whatever the runtime has to say must not be written over the picture; the log has it.
void keepOffTheScreen(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (!gScreen && gHandlerBefore)
        gHandlerBefore(type, context, text);
}

} // namespace

CScreen::CScreen() : level(Global::currentSecrecy()), installation(level)
{
    qRegisterMetaType<Outgoing>("Outgoing");
    drawing.setSingleShot(true);
    connect(&drawing, &QTimer::timeout, this, &CScreen::draw);
    sendOff = new CSendOff(level, installation.sentTexts());
    sendOff->moveToThread(&sendThread);
    connect(&sendThread, &QThread::finished, sendOff, &QObject::deleteLater);
    connect(sendOff, &CSendOff::done, this, &CScreen::sendDone);
    connect(&installation, &CInstallation::changed, this, &CScreen::installationChanged);
    connect(&terminal, &CTerminal::pressed, this, &CScreen::pressed);
    connect(&terminal, &CTerminal::resized, this, &CScreen::drawSoon);
    connect(&terminal, &CTerminal::gone, this, [this] { leaveWhenSent(ExitDone); });
    connect(&interruption, &CInterruption::requested, this,
            [this](int signalNumber) { leaveWhenSent(ExitInterrupted + signalNumber); });
}

CScreen::~CScreen()
{
    sendThread.quit();
    sendThread.wait();
}

int CScreen::run()
{
    const QString trouble = terminal.enter();
    if (!trouble.isNull()) {
        printError(trouble);
        printError(QStringLiteral("Команды: abonent --help"));
        return ExitTrouble;
    }
    gScreen = this;
    gHandlerBefore = qInstallMessageHandler(keepOffTheScreen);
    sendThread.start();
    installation.begin();
    QCoreApplication::exec();
    terminal.leave();
    gScreen = nullptr;
    qInstallMessageHandler(gHandlerBefore);
    return exitCode;
}

void CScreen::pressed(const ScreenKey &key)
{
    act(state.press(key, installation.contents()));
    if (!state.read().isEmpty())
        installation.markSeen(state.read());
    drawSoon();
}

void CScreen::act(const ScreenAction &action)
{
    switch (action.kind) {
    case ScreenAction::SendText:
        return send({action.abonent, action.text, false});
    case ScreenAction::SendPath:
        return send({action.abonent, action.text, true});
    case ScreenAction::AddContact:
        return addContact(action.text);
    case ScreenAction::Withdraw:
        return withdraw(action.number);
    case ScreenAction::Retry:
        return retry(action.number);
    case ScreenAction::StartResident:
        return startResident();
    case ScreenAction::StopResident:
        return stopResident();
    case ScreenAction::Ping:
        return ping(action.abonent);
    case ScreenAction::Quit:
        return leaveWhenSent(ExitDone);
    case ScreenAction::Suspend:
        return terminal.suspend();
    case ScreenAction::Redraw:
        return terminal.redraw();
    case ScreenAction::Nothing:
        return;
    }
}

void CScreen::send(const Outgoing &what)
{
    ++sending;
    if (what.isPath)
        state.say(QStringLiteral("Принимается к отправке: %1").arg(what.text));
    QMetaObject::invokeMethod(
        sendOff, [this, what] { sendOff->send(what); }, Qt::QueuedConnection);
}

void CScreen::sendDone(const Outgoing &what, const QString &trouble, const QString &remark)
{
    --sending;
    if (!trouble.isNull()) {
        if (!what.isPath)
            state.giveBack(Global::filterName(what.abonent), what.text);
        say(QStringLiteral("Не передано: %1").arg(trouble));
    } else if (!remark.isNull() || what.isPath) {
        say(remark.isNull() ? QStringLiteral("Принято к отправке: %1").arg(what.text) : remark);
    }
    installation.look();
    if (isLeaving)
        leaveWhenSent(exitCode);
}

/// Nothing that the user has sent may be lost: what is not in the outbox yet is waited for.
void CScreen::leaveWhenSent(int code)
{
    exitCode = code;
    isLeaving = true;
    if (sending == 0)
        return QCoreApplication::quit();
    say(QStringLiteral("Сначала принимается к отправке: сообщений %1").arg(sending));
}

void CScreen::addContact(const QString &nameAndAddress)
{
    const int blank = nameAndAddress.lastIndexOf(QLatin1Char(' '));
    const QString name = nameAndAddress.left(blank).trimmed();
    CallTarget target;
    if (blank < 0 || !target.setAddress(nameAndAddress.mid(blank + 1)))
        return say(QStringLiteral("Нужны имя и адрес: Борис 10.0.0.5 или Борис 10.0.0.5:18002"));
    const QString trouble = CContacts().add(name, target.address, target.port);
    say(trouble.isNull() ? QStringLiteral("Контакт '%1' записан").arg(name) : trouble);
    installation.look();
}

void CScreen::retry(const QString &number)
{
    const QString trouble = TransportTasks::add(level, {TransportTask::Deliver, number});
    if (!trouble.isNull())
        return say(trouble);
    say(installation.contents().hasResident
            ? QStringLiteral("Сообщение %1 передается сейчас").arg(number)
            : QStringLiteral("Передавать некому: F5 запускает прием и передачу в фоне"));
}

/// The process that delivers takes it back; where there is none, we do.
void CScreen::withdraw(const QString &number)
{
    CTransportLock lock;
    if (lock.tryLock(level)) {
        COutboxEntry entry;
        entry.directory = Outbox::directory(level).absoluteFilePath(number);
        say((entry.remove() ? QStringLiteral("Сообщение %1 отозвано")
                            : QStringLiteral("Не удалось отозвать сообщение %1"))
                .arg(number));
        return installation.look();
    }
    const QString trouble = TransportTasks::add(level, {TransportTask::Withdraw, number});
    say(trouble.isNull() ? QStringLiteral("Сообщение %1 отзывается").arg(number) : trouble);
}

void CScreen::startResident()
{
    if (resident && resident->isRunning())
        return say(QStringLiteral("Прием уже запускается"));
    resident = std::make_unique<CBackgroundRun>();
    connect(resident.get(), &CBackgroundRun::said, this,
            [this](const QString &line) { say(QStringLiteral("Прием: %1").arg(line)); });
    connect(resident.get(), &CBackgroundRun::ended, this, [this](int code) {
        installation.look();
        if (code != ExitDone && state.message().isEmpty())
            say(QStringLiteral("Прием закончился, код %1").arg(code));
    });
    const QString trouble = resident->start({QStringLiteral("listen")}, CBackgroundRun::Errors);
    say(trouble.isNull() ? QStringLiteral("Прием запускается в фоне; он останется и после выхода") : trouble);
}

void CScreen::stopResident()
{
    const pid_t process = residentProcess(level);
    if (process > 0 && ::kill(process, SIGTERM) == 0)
        return say(QStringLiteral("Прием останавливается, процесс %1").arg(process));
    say(process > 0
            ? QStringLiteral("Не удалось остановить прием, процесс %1: %2").arg(process).arg(reasonOf(errno))
            : QStringLiteral("Не удалось узнать, какой процесс принимает: остановите abonent listen сами"));
}

void CScreen::ping(const QString &abonent)
{
    if (pinging && pinging->isRunning())
        return say(QStringLiteral("Ответа на прошлый вопрос еще нет"));
    pinging = std::make_unique<CBackgroundRun>();
    connect(pinging.get(), &CBackgroundRun::said, this, &CScreen::say);
    const QString trouble =
        pinging->start({QStringLiteral("ping"), QStringLiteral("--"), abonent}, CBackgroundRun::Everything);
    say(trouble.isNull() ? QStringLiteral("Спрашиваем '%1'...").arg(abonent) : trouble);
}

void CScreen::installationChanged()
{
    state.fit(installation.contents());
    if (!state.read().isEmpty()) {
        const auto &messages = installation.contents().messages;
        const bool isAny =
            std::any_of(messages.begin(), messages.end(), [this](const ScreenMessage &message) {
                return message.isNew && message.key == state.read();
            });
        if (isAny) {
            terminal.bell();
            return installation.markSeen(state.read()); // comes back here
        }
    }
    noticeNew();
    drawSoon();
}

void CScreen::noticeNew()
{
    int unseen = 0;
    for (const ScreenContact &contact : installation.contents().contacts)
        unseen += contact.unseen;
    if (newBefore >= 0 && unseen > newBefore) {
        terminal.bell();
        state.say(QStringLiteral("Новое сообщение: %1").arg(installation.contents().contacts.front().name));
    }
    newBefore = unseen;
}

void CScreen::say(const QString &text)
{
    state.say(text);
    drawSoon();
}

/// Soon: of many keys and changes together only the last picture is drawn.
void CScreen::drawSoon()
{
    if (!drawing.isActive())
        drawing.start();
}

void CScreen::draw()
{
    const ScreenPicture picture =
        drawScreen(state, installation.contents(), terminal.width(), terminal.height());
    state.setExtent(picture.page, picture.mostScroll);
    terminal.draw(picture);
}

bool isOnTerminal()
{
    return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1;
}

int runScreen()
{
    return CScreen().run();
}
