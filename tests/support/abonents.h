// Installations of the built program for tests that drive it, and strangers who speak to it over a socket of
// their own. A program that uses them links abonentParts and names ABONENT_FILE and CHANNEL_FILE.
#pragma once

#include "host/conversation/messageframe.h"
#include "host/delivery/cidentity.h"
#include "host/delivery/ctlssession.h"
#include "tests/support/testinstallation.h"

#include <QDir>
#include <QProcess>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

constexpr int patienceMs = 60000; // the limit of one wait; nothing is judged by the time it takes

QString local(int port);

/// A file for an installation. A hard link counts as a place of its own; between file systems it takes a
/// copy.
void placeProgram(const char *from, const QString &to);

/// An installation of its own with a port of its own.
struct Abonent
{
    explicit Abonent(const QString &ownName);
    ~Abonent();

    QString path(const QString &within) const { return directory.filePath(within); }
    QString program() const { return path("bin/abonent"_s); }
    QString settingsFile() const { return path("settings/channelIp.conf"_s); }
    QByteArray settings() const { return TestInstallation::read(settingsFile()); }

    /// Runs a command of words, with more behind it, to its end. @return its exit code; fills output
    int run(const QString &words, const QStringList &more = QStringList());

    /// Runs a line of the shell, in which $0 is the program, in the installation's directory; likewise.
    int runShell(const QString &line);

    bool listen(const QStringList &more = QStringList());

    /// Strangers may send as much as they like.
    void letAllIn() { run("settings set Contacts/policy=all"_s); }

    /// Waits until the listener has printed a text.
    bool sees(const QString &text);

    /// Ends the listener. @return its exit code, -1 when it was killed
    int interrupt(int signalNumber);

    QStringList stored(const QString &box = "input"_s) const;
    QString storedPath(const QString &within) const { return path("data/0/messages/input/"_s + within); }
    QByteArray storedFile(const QString &within) const { return TestInstallation::read(storedPath(within)); }

    QTemporaryDir directory;
    const QString name;
    const int port;
    QProcess listener;
    QByteArray heard;
    QString output;

private:
    int finish(QProcess &process);
};

/// Somebody with a socket and a key of their own, the same for all strangers of the test program.
struct Stranger
{
    explicit Stranger(int port);

    Stranger &says(const QByteArray &bytes);
    Stranger &saysPlainly(const QByteArray &bytes); // without TLS
    bool isAnswered(const QByteArray &bytes);
    bool isCutOff();
    QByteArray &carry();

    CIdentity identity;
    std::unique_ptr<CTlsSession> tls;
    QTcpSocket socket;
    QByteArray unsent;
    QByteArray heard;
    QByteArray plain; // as it came
};

QByteArray helloOf(const QString &name);
QByteArray offerOf(quint32 item, OfferFrame::Kind kind, qint64 size, const QByteArray &name, char mark = '1');
QByteArray dataFrame(quint32 item, const QByteArray &bytes);
QByteArray finishOf(quint32 item, const QByteArray &contents);
QByteArray answerOf(quint32 item, AnswerFrame::Verdict verdict, qint64 have, const QByteArray &digest,
                    const QString &reason = QString());

/// Bytes that do not repeat.
QByteArray contentsOf(int size, quint32 seed);

QByteArray sha256(const QByteArray &bytes);
QByteArray checkOf(const QByteArray &bytes); // as the frames carry it
