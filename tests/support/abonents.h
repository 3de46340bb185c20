// Installations of the built program for a test that drives it, and strangers who speak to it over a socket
// of their own. The test links abonentParts and names ABONENT_FILE and CHANNEL_FILE.
#pragma once

#include "host/conversation/cchecksum.h"
#include "host/conversation/messageframe.h"
#include "host/delivery/cidentity.h"
#include "host/delivery/ctlssession.h"
#include "tests/support/testinstallation.h"

#include <QCryptographicHash>
#include <QDir>
#include <QProcess>
#include <QRandomGenerator>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>

#include <unistd.h>

constexpr int patienceMs = 60000; // the limit of one wait; nothing is judged by the time it takes

inline QString local(int port)
{
    return "127.0.0.1:%1"_s.arg(port);
}

/// An installation of its own with a port of its own.
struct Abonent
{
    explicit Abonent(const QString &ownName) : name(ownName), port(freePort())
    {
        QDir().mkpath(path("bin/channelPlugins"_s));
        place(ABONENT_FILE, program());
        place(CHANNEL_FILE, path("bin/channelPlugins/libtransportIp.so"_s));
        run("settings set port=%1"_s.arg(port));
    }
    ~Abonent()
    {
        listener.kill();
        listener.waitForFinished();
        std::error_code ignored;
        std::filesystem::remove_all(directory.path().toStdString(), ignored); // Qt cannot name all files
    }

    // A hard link counts as a place of its own; between file systems it takes a copy.
    static void place(const char *from, const QString &to)
    {
        if (::link(from, to.toUtf8().constData()) != 0)
            QFile::copy(QString::fromUtf8(from), to);
    }

    QString path(const QString &within) const { return directory.filePath(within); }
    QString program() const { return path("bin/abonent"_s); }
    QString settingsFile() const { return path("settings/channelIp.conf"_s); }
    QByteArray settings() const { return TestInstallation::read(settingsFile()); }

    /// Runs a program in the installation's directory to its end. @return its exit code; fills output
    int runProgram(const QString &what, const QStringList &words)
    {
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.setWorkingDirectory(directory.path());
        process.start(what, words);
        if (!process.waitForFinished(patienceMs) || process.exitStatus() != QProcess::NormalExit)
            return -1;
        output = QString::fromUtf8(process.readAll());
        return process.exitCode();
    }
    int run(const QString &words, const QStringList &more = QStringList())
    {
        return runProgram(program(), words.split(QLatin1Char(' ')) + more);
    }
    int runShell(const QString &line) { return runProgram("sh"_s, {"-c"_s, line, program()}); }

    bool listen(const QStringList &more = QStringList())
    {
        heard.clear();
        listener.setProcessChannelMode(QProcess::MergedChannels);
        listener.start(program(), QStringList{"listen"_s, "--name"_s, name} + more);
        return sees("TCP сервер успешно запущен на %1 порту"_s.arg(port));
    }

    /// Strangers may send as much as they like.
    void letAllIn() { run("settings set Contacts/policy=all"_s); }

    /// Waits until the listener has printed a text.
    bool sees(const QString &text)
    {
        const auto isThere = [&] {
            heard += listener.readAll();
            return QString::fromUtf8(heard).contains(text);
        };
        return QTest::qWaitFor(isThere, patienceMs);
    }

    /// Ends the listener. @return its exit code, -1 when it was killed
    int interrupt(int signalNumber)
    {
        if (listener.state() == QProcess::NotRunning)
            return -1;
        ::kill(pid_t(listener.processId()), signalNumber);
        listener.waitForFinished(patienceMs);
        heard += listener.readAll();
        return listener.exitStatus() == QProcess::NormalExit ? listener.exitCode() : -1;
    }

    QStringList stored(const QString &box = "input"_s) const
    {
        return QDir(path("data/0/messages/"_s + box)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    }
    QString storedPath(const QString &within) const { return path("data/0/messages/input/"_s + within); }
    QByteArray storedFile(const QString &within) const { return TestInstallation::read(storedPath(within)); }

    QTemporaryDir directory;
    const QString name;
    const int port;
    QProcess listener;
    QByteArray heard;
    QString output;
};

/// Somebody with a socket, and the key that all strangers of the test program have.
struct Stranger
{
    explicit Stranger(int port)
    {
        static const QTemporaryDir place;
        identity.prepare(place.filePath("identity.pem"_s));
        tls = std::make_unique<CTlsSession>(CTlsSession::Calling, identity);
        socket.connectToHost(QHostAddress::LocalHost, quint16(port));
        socket.waitForConnected(patienceMs);
    }

    Stranger &says(const QByteArray &bytes)
    {
        unsent += bytes;
        carry();
        return *this;
    }
    Stranger &saysPlainly(const QByteArray &bytes) // without TLS
    {
        socket.write(bytes);
        socket.flush();
        return *this;
    }
    bool isAnswered(const QByteArray &bytes)
    {
        return QTest::qWaitFor([&] { return carry().contains(bytes); }, patienceMs);
    }
    bool isCutOff()
    {
        const auto isOver = [&] { return carry(), socket.state() == QAbstractSocket::UnconnectedState; };
        return QTest::qWaitFor(isOver, patienceMs);
    }
    QByteArray &carry()
    {
        const QByteArray bytes = socket.readAll();
        plain += bytes;
        if (!bytes.isEmpty())
            tls->feed(bytes);
        if (!unsent.isEmpty() && tls->write(unsent))
            unsent.clear();
        socket.write(tls->takeOutgoing(tls->outgoingSize()));
        socket.flush();
        return heard += tls->takePlain(1 << 20);
    }

    CIdentity identity;
    std::unique_ptr<CTlsSession> tls;
    QTcpSocket socket;
    QByteArray unsent;
    QByteArray heard;
    QByteArray plain; // as it came
};

inline QByteArray helloOf(const QString &name)
{
    return HelloFrame{HelloFrame::currentVersion, 0, name, {}}.toBytes();
}

inline OfferFrame offering(quint32 item, OfferFrame::Kind kind, qint64 size, const QByteArray &name,
                           char mark = '1')
{
    OfferFrame offer;
    offer.item = item;
    offer.kind = kind;
    offer.size = size;
    offer.name = name;
    offer.identity = QByteArray(FrameLimits::identitySize, mark);
    return offer;
}

inline QByteArray dataFrame(quint32 item, const QByteArray &bytes)
{
    QByteArray frame;
    std::memcpy(startDataFrame(&frame, item, bytes.size()), bytes.constData(), std::size_t(bytes.size()));
    return frame;
}

inline QByteArray answerOf(quint32 item, AnswerFrame::Verdict verdict, qint64 have, const QByteArray &digest,
                           const QString &reason = QString())
{
    return AnswerFrame{item, verdict, have, digest, reason}.toBytes();
}

inline QByteArray sha256(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256);
}

inline QByteArray checkOf(const QByteArray &bytes) // as the frames carry it
{
    CCheckSum sum;
    sum.add({bytes.constData(), std::size_t(bytes.size())});
    return sum.soFar();
}

/// All the bytes of an item, and its end.
inline QByteArray wholeOf(quint32 item, const QByteArray &bytes)
{
    return dataFrame(item, bytes) + FinishFrame{item, checkOf(bytes)}.toBytes();
}

/// Bytes that do not repeat.
inline QByteArray contentsOf(int size, quint32 seed)
{
    QVector<quint32> numbers(size / 4 + 1);
    QRandomGenerator(seed).fillRange(numbers.data(), numbers.size());
    return QByteArray(reinterpret_cast<const char *>(numbers.constData()), size);
}
