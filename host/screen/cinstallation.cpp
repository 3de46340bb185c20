#include "host/screen/cinstallation.h"

#include "common/global.h"
#include "host/delivery/generalsettings.h"
#include "host/screen/residentprocess.h"

#include <QFileInfo>

namespace {

constexpr int soonMs = 20;
constexpr int sweepMs = 3000;
constexpr int quickMs = 250;
constexpr int quickForMs = 5000; // since the last progress
constexpr int mostRows = 1000;   // of the journal

} // namespace

CInstallation::CInstallation(int ofLevel)
    : level(ofLevel), inbox(Global::inputMessagesDir(ofLevel)), outbox(ofLevel), sent(ofLevel), seen(ofLevel)
{
    soon.setSingleShot(true);
    connect(&soon, &QTimer::timeout, this, &CInstallation::look);
    connect(&sweep, &QTimer::timeout, this, &CInstallation::look);
    connect(&quick, &QTimer::timeout, this, &CInstallation::lookAtTransfers);
    for (const auto change : {&QFileSystemWatcher::directoryChanged, &QFileSystemWatcher::fileChanged})
        connect(&watcher, change, this, &CInstallation::noticeChange);
}

void CInstallation::noticeChange(const QString &path)
{
    // Reading the journal changes owners of its files, to what they are: that is told as well.
    const bool isNothing = path.startsWith(Global::journalsFilePath(level)) && journalStamp() == readStamp;
    if (!isNothing && !soon.isActive())
        soon.start(soonMs);
}

/// What tells one state of the journal from another.
QString CInstallation::journalStamp() const
{
    QString stamp;
    for (const char *ending : {"", "-wal"}) {
        const QFileInfo file(Global::journalsFilePath(level) + QLatin1String(ending));
        stamp += QStringLiteral("%1 %2 ").arg(file.size()).arg(file.lastModified().toMSecsSinceEpoch());
    }
    return stamp;
}

void CInstallation::readJournal()
{
    const QString stamp = journalStamp(); // before reading, so that no later change is missed
    if (stamp == readStamp)
        return;
    readStamp = stamp;
    journal = CMessageJournal::entries(Global::journalsFilePath(level), QDateTime(), QString(), mostRows,
                                       &journalTrouble);
}

void CInstallation::begin()
{
    for (const QDir &place : {Global::inputMessagesDir(level), Global::outputMessagesDir(level),
                              Global::incompleteMessagesDir(level)})
        if (!Global::makePath(place)) // what is not there cannot be watched
            rightsTrouble = QStringLiteral("Нет прав на каталог %1: принять и передать ничего нельзя")
                                .arg(place.absolutePath());
    sweep.start(sweepMs);
    look();
}

void CInstallation::look()
{
    watch(); // before reading, so that no later change is missed
    inbox.look();
    sent.look();
    seen.look();
    known = contacts.list(&contactTrouble);
    readJournal();
    hasResident = isResidentThere(level);
    if (outbox.look())
        beginQuickLooks();
    assembleAll();
}

void CInstallation::beginQuickLooks()
{
    sinceProgress.start();
    quick.start(quickMs);
}

void CInstallation::lookAtTransfers()
{
    if (outbox.look()) {
        sinceProgress.start();
        watch();
        assembleAll();
    } else if (sinceProgress.elapsed() > quickForMs) {
        quick.stop();
    }
}

void CInstallation::assembleAll()
{
    for (const ScreenMessage &message : outbox.messages()) {
        if (message.state == ScreenMessage::Withdrawn)
            sent.forget(message.identity);
    }
    ScreenSources sources;
    sources.contacts = known;
    sources.journal = journal;
    sources.received = inbox.messages();
    sources.outgoing = outbox.messages();
    sources.transfers = outbox.transfers();
    sources.written = sent.all();
    sources.seen = seen.all();
    shown = assemble(sources);
    shown.ownName = GeneralSettings::chosenName(QString());
    shown.hasResident = hasResident;
    for (const QString &trouble : {rightsTrouble, contactTrouble, journalTrouble}) {
        if (shown.trouble.isNull())
            shown.trouble = trouble;
    }
    emit changed();
}

void CInstallation::watch()
{
    const QString database = Global::journalsFilePath(level);
    QStringList wanted{Global::inputMessagesDir(level).absolutePath(),
                       Global::outputMessagesDir(level).absolutePath(),
                       Global::incompleteMessagesDir(level).absolutePath(),
                       Global::abonentsSettingsFilePath(),
                       Global::generalSettingsFilePath(),
                       database,
                       database + QStringLiteral("-wal")};
    wanted += outbox.stateFiles();
    const QStringList watched = watcher.files() + watcher.directories();
    for (const QString &path : qAsConst(wanted)) {
        if (!watched.contains(path) && QFile::exists(path))
            watcher.addPath(path);
    }
}

void CInstallation::markSeen(const QString &key)
{
    QStringList identities;
    for (const ScreenMessage &message : shown.messages) {
        if (message.isNew && message.key == key)
            identities << message.identity;
    }
    if (identities.isEmpty())
        return;
    const QString trouble = seen.add(identities);
    assembleAll();
    if (!trouble.isNull())
        shown.trouble = trouble;
}
