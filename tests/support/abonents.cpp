#include "tests/support/abonents.h"

#include "host/conversation/cchecksum.h"

#include <QCryptographicHash>
#include <QRandomGenerator>

#include <csignal>
#include <cstring>
#include <filesystem>

#include <unistd.h>

QString local(int port)
{
    return "127.0.0.1:%1"_s.arg(port);
}

void placeProgram(const char *from, const QString &to)
{
    if (::link(from, to.toUtf8().constData()) != 0)
        QFile::copy(QString::fromUtf8(from), to);
}

Abonent::Abonent(const QString &ownName) : name(ownName), port(freePort())
{
    QDir().mkpath(path("bin/channelPlugins"_s));
    placeProgram(ABONENT_FILE, program());
    placeProgram(CHANNEL_FILE, path("bin/channelPlugins/libtransportIp.so"_s));
    listener.setProcessChannelMode(QProcess::MergedChannels);
    run("settings set port=%1"_s.arg(port));
}

Abonent::~Abonent()
{
    listener.kill();
    listener.waitForFinished();
    std::error_code ignored;
    std::filesystem::remove_all(directory.path().toStdString(), ignored); // Qt cannot name all files
}

int Abonent::finish(QProcess &process)
{
    if (!process.waitForFinished(patienceMs) || process.exitStatus() != QProcess::NormalExit)
        return -1;
    output = QString::fromUtf8(process.readAll());
    return process.exitCode();
}

int Abonent::run(const QString &words, const QStringList &more)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program(), words.split(QLatin1Char(' ')) + more);
    return finish(process);
}

int Abonent::runShell(const QString &line)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setWorkingDirectory(directory.path());
    process.start("sh"_s, {"-c"_s, line, program()});
    return finish(process);
}

bool Abonent::listen(const QStringList &more)
{
    heard.clear();
    listener.start(program(), QStringList{"listen"_s, "--name"_s, name} + more);
    return sees("TCP сервер успешно запущен на %1 порту"_s.arg(port));
}

bool Abonent::sees(const QString &text)
{
    return QTest::qWaitFor(
        [&] {
            heard += listener.readAll();
            return QString::fromUtf8(heard).contains(text);
        },
        patienceMs);
}

int Abonent::interrupt(int signalNumber)
{
    if (listener.state() == QProcess::NotRunning)
        return -1;
    ::kill(pid_t(listener.processId()), signalNumber);
    listener.waitForFinished(patienceMs);
    heard += listener.readAll();
    return listener.exitStatus() == QProcess::NormalExit ? listener.exitCode() : -1;
}

QStringList Abonent::stored(const QString &box) const
{
    return QDir(path("data/0/messages/"_s + box)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
}

Stranger::Stranger(int port)
{
    static const QTemporaryDir place;
    identity.prepare(place.filePath("identity.pem"_s));
    tls = std::make_unique<CTlsSession>(CTlsSession::Calling, identity);
    socket.connectToHost(QHostAddress::LocalHost, quint16(port));
    socket.waitForConnected(patienceMs);
}

Stranger &Stranger::says(const QByteArray &bytes)
{
    unsent += bytes;
    carry();
    return *this;
}

Stranger &Stranger::saysPlainly(const QByteArray &bytes)
{
    socket.write(bytes);
    socket.flush();
    return *this;
}

bool Stranger::isAnswered(const QByteArray &bytes)
{
    return QTest::qWaitFor([&] { return carry().contains(bytes); }, patienceMs);
}

bool Stranger::isCutOff()
{
    return QTest::qWaitFor([&] { return carry(), socket.state() == QAbstractSocket::UnconnectedState; },
                           patienceMs);
}

QByteArray &Stranger::carry()
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

QByteArray helloOf(const QString &name)
{
    return HelloFrame{HelloFrame::currentVersion, 0, name, {}}.toBytes();
}

QByteArray offerOf(quint32 item, OfferFrame::Kind kind, qint64 size, const QByteArray &name, char mark)
{
    OfferFrame offer;
    offer.item = item;
    offer.kind = kind;
    offer.size = size;
    offer.name = name;
    offer.identity = QByteArray(FrameLimits::identitySize, mark);
    return offer.toBytes();
}

QByteArray dataFrame(quint32 item, const QByteArray &bytes)
{
    QByteArray frame;
    std::memcpy(startDataFrame(&frame, item, bytes.size()), bytes.constData(), std::size_t(bytes.size()));
    return frame;
}

QByteArray finishOf(quint32 item, const QByteArray &contents)
{
    return FinishFrame{item, checkOf(contents)}.toBytes();
}

QByteArray answerOf(quint32 item, AnswerFrame::Verdict verdict, qint64 have, const QByteArray &digest,
                    const QString &reason)
{
    return AnswerFrame{item, verdict, have, digest, reason}.toBytes();
}

QByteArray contentsOf(int size, quint32 seed)
{
    QByteArray bytes(size + 4, Qt::Uninitialized);
    QRandomGenerator random(seed);
    for (int at = 0; at < size; at += 4)
        qToLittleEndian(random.generate(), bytes.data() + at);
    bytes.chop(4);
    return bytes;
}

QByteArray sha256(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256);
}

QByteArray checkOf(const QByteArray &bytes)
{
    CCheckSum sum;
    sum.add({bytes.constData(), std::size_t(bytes.size())});
    return sum.soFar();
}
