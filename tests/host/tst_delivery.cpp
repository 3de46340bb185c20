// Keys, the TLS session, contacts and the message journal, each for itself: hostile peers, damaged files,
// several processes.
#include "common/global.h"
#include "host/conversation/cinbox.h"
#include "host/conversation/handout.h"
#include "host/delivery/ccontacts.h"
#include "host/delivery/cidentity.h"
#include "host/delivery/cmessagejournal.h"
#include "host/delivery/ctlssession.h"
#include "host/delivery/fingerprintwords.h"
#include "host/delivery/generalsettings.h"
#include "tests/support/forked.h"
#include "tests/support/messagecatcher.h"
#include "tests/support/testinstallation.h"

#include <QTemporaryDir>
#include <QtTest>

#include <openssl/ssl.h>
#include <sqlite3.h>

#include <csignal>
#include <random>

#include <sys/stat.h>
#include <unistd.h>

namespace {

QByteArray operator""_b(const char *text, std::size_t size)
{
    return QByteArray(text, int(size));
}

std::mt19937 gRandom(20261123); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same pieces in every run

int randomUpTo(int most)
{
    return int(gRandom() % unsigned(most)) + 1;
}

QByteArray randomBytes(int size)
{
    QByteArray bytes(size, '\0');
    for (char &byte : bytes)
        byte = char(gRandom());
    return bytes;
}

/// Two sessions and the line between them.
struct Line
{
    Line(const CIdentity &callingIdentity, const CIdentity &answeringIdentity)
        : calling(CTlsSession::Calling, callingIdentity), answering(CTlsSession::Answering, answeringIdentity)
    {}

    /// Carries bytes both ways until none are left. @param piece bytes at a time, 0: any number
    void carry(int piece = 0)
    {
        while (carryOne(&calling, &answering, piece) + carryOne(&answering, &calling, piece) > 0) {
        }
    }

    static int carryOne(CTlsSession *from, CTlsSession *to, int piece)
    {
        const QByteArray bytes = from->takeOutgoing(piece > 0 ? piece : randomUpTo(40000));
        to->feed(bytes);
        return bytes.size();
    }

    CTlsSession calling;
    CTlsSession answering;
};

/// All that can be read now, in pieces of any size.
QByteArray readAll(CTlsSession *session)
{
    QByteArray all;
    for (;;) {
        const QByteArray piece = session->takePlain(randomUpTo(70000));
        if (piece.isEmpty())
            return all;
        all += piece;
    }
}

/// OpenSSL itself as a caller without a certificate. @return its first bytes; talks on to @a session, if any
QByteArray foreignCaller(int version, CTlsSession *session = nullptr)
{
    SSL_CTX *context = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_max_proto_version(context, version);
    SSL *ssl = SSL_new(context);
    BIO *in = BIO_new(BIO_s_mem());
    BIO *out = BIO_new(BIO_s_mem());
    SSL_set_bio(ssl, in, out);
    SSL_set_connect_state(ssl);
    QByteArray first;
    for (int round = 0; round < (session ? 5 : 1); ++round) {
        SSL_do_handshake(ssl);
        char *bytes = nullptr;
        const long size = BIO_get_mem_data(out, &bytes);
        const QByteArray said(bytes, int(size));
        first = round == 0 ? said : first;
        BIO_reset(out);
        if (!session)
            continue;
        session->feed(said);
        const QByteArray answer = session->takeOutgoing(100000);
        BIO_write(in, answer.constData(), answer.size());
    }
    SSL_free(ssl);
    SSL_CTX_free(context);
    return first;
}

const QByteArray keyA(32, 'a');
const QByteArray keyB(32, 'b');
const QByteArray keyC(32, 'c');

/// A contact's file with one contact of each state.
void fillContacts(const QString &path)
{
    CContacts contacts(path);
    contacts.add("Анна"_s, "10.0.0.1"_s, 1);
    contacts.judge("Анна"_s, keyA);
    contacts.add("Борис"_s, "10.0.0.2"_s, 2);
    contacts.judge("Чужой"_s, keyC);
    contacts.judge("Гад"_s, QByteArray(32, 'g'));
    contacts.setBlocked("Гад"_s, true);
}

QByteArray namesIn(const QVector<CContact> &contacts)
{
    QStringList names;
    for (const CContact &contact : contacts)
        names << contact.name + QLatin1Char(contact.key.isEmpty() ? '-' : contact.key.at(0));
    return names.join(QLatin1Char(' ')).toUtf8();
}

JournalEntry entryOf(const QString &abonent, const QString &text)
{
    JournalEntry entry;
    entry.kind = JournalRow::Received;
    entry.abonent = abonent;
    entry.name = "имя\n\u202e.txt"_s;
    entry.size = 7;
    entry.digest = keyA;
    entry.text = text;
    entry.message = "0011"_s;
    return entry;
}

QVector<JournalEntry> entriesIn(const QString &path, const QString &with = QString(), int limit = 0)
{
    QString trouble;
    const auto entries = CMessageJournal::entries(path, QDateTime(), with, limit, &trouble);
    return trouble.isNull() ? entries : QVector<JournalEntry>(1);
}

bool runSql(const QString &path, const char *sql)
{
    sqlite3 *database = nullptr;
    const bool isDone = sqlite3_open(QFile::encodeName(path).constData(), &database) == SQLITE_OK &&
                        sqlite3_exec(database, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(database);
    return isDone;
}

} // namespace

class TestDelivery : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        TestInstallation::clean();
        QLoggingCategory::setFilterRules("default.debug=false"_s); // the echo of the log
        QVERIFY(place.isValid());
        QCOMPARE(anna.prepare(file("anna.pem")), QString());
        QCOMPARE(boris.prepare(file("boris.pem")), QString());
    }

    void makesOneKeyHoweverManyBegin()
    {
        const QString path = file("many/identity.pem");
        const QString seen = file("seen/%1");
        const auto makesKey = [&](int number) {
            CIdentity identity;
            const bool isMade = identity.prepare(path).isNull();
            return isMade && TestInstallation::write(seen.arg(number), identity.fingerprint()) ? 0 : 1;
        };
        QCOMPARE(Forked::failures(8, makesKey), 0);
        for (int number = 1; number < 8; ++number)
            QCOMPARE(TestInstallation::read(seen.arg(number)), TestInstallation::read(seen.arg(0)));
        QCOMPARE(QDir(QFileInfo(path).path()).entryList(QDir::Files), QStringList("identity.pem"_s));
        QVERIFY(anna.fingerprint() != boris.fingerprint());
    }

    void keepsTheKeyToItsOwnerAndLeavesADamagedOneAlone()
    {
        struct stat status = {};
        QCOMPARE(::stat(qPrintable(file("anna.pem")), &status), 0);
        QCOMPARE(status.st_mode & 0777, 0600u);
        // A directory of the system's that others may write to: an installation that users share.
        if (::geteuid() == 0) {
            QVERIFY(QDir().mkpath(file("shared")));
            QCOMPARE(::chmod(qPrintable(file("shared")), 0770), 0);
            CIdentity identity;
            QCOMPARE(identity.prepare(file("shared/identity.pem")), QString());
            QCOMPARE(::stat(qPrintable(file("shared/identity.pem")), &status), 0);
            QCOMPARE(status.st_mode & 0777, 0640u);
        }
        const QByteArray whole = TestInstallation::read(file("anna.pem"));
        const QByteArray others = TestInstallation::read(file("boris.pem"));
        const int border = others.indexOf("-----BEGIN CERT");
        const QByteArray damaged[] = {QByteArray(), whole.left(whole.size() / 2), whole.mid(20),
                                      whole.left(whole.indexOf("-----BEGIN CERT")) + others.mid(border)};
        for (const QByteArray &contents : damaged) {
            QVERIFY(TestInstallation::write(file("damaged.pem"), contents));
            CIdentity identity;
            QVERIFY(identity.prepare(file("damaged.pem")).contains("поврежден"_s));
            QVERIFY(identity.fingerprint().isEmpty() && !identity.key());
            QCOMPARE(TestInstallation::read(file("damaged.pem")), contents);
        }
    }

    void wordsAreTheSameForEver()
    {
        QStringList all;
        for (int first = 0; first < 256; first += fingerprintWordCount) {
            QByteArray fingerprint(32, '\0');
            for (int i = 0; i < fingerprintWordCount; ++i)
                fingerprint[i] = char(first + i);
            all += fingerprintWords(fingerprint);
        }
        all = all.mid(0, 256);
        QSet<QString> beginnings;
        for (const QString &word : qAsConst(all))
            beginnings.insert(word.left(3));
        QCOMPARE(beginnings.size(), 256);
        QCOMPARE(
            QCryptographicHash::hash(all.join(QLatin1Char(' ')).toUtf8(), QCryptographicHash::Sha256).toHex(),
            QByteArray("4cb4fc8e67a05aedce8862af5b29e867145493873a21ac8819ffd72f8704c5b1"));
        QCOMPARE(shortFingerprint(QByteArray::fromHex("9f3a11c20b7e5d48e1a6") + QByteArray(22, 'x')),
                 "9F3A 11C2 0B7E 5D48 E1A6"_s);
        QVERIFY(fingerprintWords("short").isEmpty() && shortFingerprint("short").isNull());
    }

    void talksInPiecesOfAnySize()
    {
        for (const int piece : {1, 7, 0}) {
            Line line(anna, boris);
            QVERIFY(!line.calling.write("early"_b));
            line.carry(piece);
            QVERIFY(line.calling.isEstablished() && line.answering.isEstablished());
            QCOMPARE(line.calling.peerFingerprint(), boris.fingerprint());
            QCOMPARE(line.answering.peerFingerprint(), anna.fingerprint());
            const QByteArray bound = line.calling.exportKey("EXPORTER-test", 32);
            QCOMPARE(bound, line.answering.exportKey("EXPORTER-test", 32));
            QVERIFY(bound.size() == 32 && bound != exportedBefore);
            exportedBefore = bound;

            const QByteArray there = randomBytes(piece == 1 ? 20000 : 700000);
            const QByteArray back = randomBytes(5);
            QVERIFY(line.calling.write(there) && line.answering.write(back) && line.answering.write(back));
            line.carry(piece);
            QCOMPARE(readAll(&line.answering), there);
            QCOMPARE(readAll(&line.calling), back + back);

            // The end of one direction leaves the other open.
            line.calling.close();
            QVERIFY(!line.calling.write("late"_b));
            line.carry(piece);
            QVERIFY(readAll(&line.answering).isEmpty() && line.answering.isClosed());
            QVERIFY(line.answering.write("last"_b));
            line.answering.close();
            line.carry(piece);
            QCOMPARE(readAll(&line.calling), QByteArray("last"));
            line.calling.feedEnd();
            QVERIFY(line.calling.isClosed() && line.calling.trouble().isNull() &&
                    line.answering.trouble().isNull());
        }
    }

    void refusesWhoDoesNotSpeakIt()
    {
        const QPair<QByteArray, QString> callers[] = {
            {QByteArray::fromHex("010000000000000a41424e5400010002d0af"), "по старому протоколу"_s},
            {"GET / HTTP/1.1\r\n\r\n", "не TLS"_s},
            {QByteArray("\x05\x00\x01\x02", 4), "не TLS"_s},
            {foreignCaller(TLS1_2_VERSION), "TLS 1.3"_s},
            {QByteArray::fromHex("1603010004") + "abcd", "TLS"_s},
            {QByteArray::fromHex("15030300020246"), "TLS"_s}, // alert: protocol_version
        };
        for (const auto &[bytes, trouble] : callers) {
            for (const int piece : {1, 10000}) {
                CTlsSession session(CTlsSession::Answering, anna);
                CTlsSession calling(CTlsSession::Calling, anna);
                for (CTlsSession *side : {&session, &calling}) {
                    for (int at = 0; at < bytes.size(); at += piece)
                        side->feed(bytes.mid(at, piece));
                    side->feedEnd();
                    const QString text = side->trouble();
                    QVERIFY2(text.contains(trouble) || (side == &calling && text.contains("TLS"_s)), bytes);
                    QVERIFY(!side->isEstablished() && side->takePlain(100).isEmpty() && !side->write("x"_b));
                }
            }
        }
        CTlsSession session(CTlsSession::Answering, anna);
        foreignCaller(TLS1_3_VERSION, &session);
        QVERIFY2(session.trouble().contains("не показал"_s), qPrintable(session.trouble()));
        QVERIFY(!session.isEstablished());
        CIdentity none;
        QVERIFY(!CTlsSession(CTlsSession::Calling, none).trouble().isNull());
    }

    // Whatever is changed or left out on the way, what comes out is a beginning of what went in, and the loss
    // shows.
    void noticesWhatIsChangedOrCutOnTheWay()
    {
        const QByteArray sent = randomBytes(40000);
        for (int round = 0; round < 200; ++round) {
            Line line(anna, boris);
            const bool isLate = round % 2;
            if (isLate) {
                line.carry();
                QVERIFY(line.calling.write(sent));
                line.calling.close();
            }
            QByteArray bytes = line.calling.takeOutgoing(1000000);
            const int at = randomUpTo(bytes.size()) - 1;
            if (round % 4 < 2)
                bytes[at] = char(bytes.at(at) ^ (1 << (round % 8)));
            else
                bytes.truncate(at);
            line.answering.feed(bytes);
            const QByteArray got = readAll(&line.answering);
            if (!isLate)
                line.carry();
            line.answering.feedEnd();
            line.calling.feedEnd();
            const QByteArray rest = got + readAll(&line.answering);
            QVERIFY(sent.startsWith(rest) && (isLate || rest.isEmpty()));
            QVERIFY(!line.answering.isClosed());
            QVERIFY2(!line.answering.trouble().isNull(), qPrintable(QString::number(round)));
        }
    }

    void keepsItsMemoryBounded()
    {
        Line line(anna, boris);
        line.carry();
        const QByteArray block(256 * 1024, 'x');
        int written = 0;
        while (line.calling.write(block))
            ++written;
        QVERIFY(line.calling.outgoingSize() >= CTlsSession::outgoingLimit);
        QVERIFY(line.calling.outgoingSize() < CTlsSession::outgoingLimit + block.size() + 1024);
        QVERIFY(line.calling.trouble().isNull());
        int read = 0;
        while (line.calling.outgoingSize() > 0) {
            if (!line.answering.wantsInput())
                read += readAll(&line.answering).size();
            line.answering.feed(line.calling.takeOutgoing(64 * 1024));
        }
        QCOMPARE(read + readAll(&line.answering).size(), written * block.size());
        // Nobody takes what has come, in spite of wantsInput().
        for (int i = 0; i < 20 && line.answering.trouble().isNull(); ++i) {
            line.calling.write(block);
            line.answering.feed(line.calling.takeOutgoing(1000000));
        }
        QVERIFY(!line.answering.trouble().isNull());
    }

    void judgesNamesByTheirKeys()
    {
        using C = CContacts;
        const QString path = file("judged.conf");
        fillContacts(path);
        const struct
        {
            const char *name;
            QByteArray key;
            C::Direction direction;
            const char *policy;
            Verdict verdict;
            bool isStranger;
        } rows[] = {
            {"анна!", keyA, C::Answered, "known", Verdict::Known, false},
            {"Анна", keyB, C::Answered, "all", Verdict::KeyChanged, false},
            {"Анна", keyC, C::Placed, "first contact", Verdict::NameTaken, false},
            {"Чужой", keyC, C::Answered, "first contact", Verdict::Known, true},
            {"Чужой", keyC, C::Answered, "known", Verdict::NotInvited, true},
            {"Гад", QByteArray(32, 'g'), C::Answered, "all", Verdict::Blocked, true},
            {"Гад под другим именем", QByteArray(32, 'g'), C::Answered, "all", Verdict::Blocked, true},
            {"Новый", QByteArray(32, 'n'), C::Answered, "known", Verdict::NotInvited, true},
            {"Новый", QByteArray(32, 'n'), C::Answered, "first contact", Verdict::PinnedNow, true},
            {"Новый", QByteArray(32, 'm'), C::Answered, "first contact", Verdict::KeyChanged, true},
            {"Вызванный", QByteArray(32, 'v'), C::Placed, "known", Verdict::PinnedNow, false},
            {"Сосед Анны", keyA, C::Answered, "first contact", Verdict::PinnedNow, true},
            {"Борис", keyB, C::Answered, "known", Verdict::PinnedNow, false},
            {"Борис", keyB, C::Answered, "known", Verdict::Known, false},
            {"?!", keyB, C::Answered, "all", Verdict::NotInvited, true},
            {"Без ключа", QByteArray(), C::Answered, "all", Verdict::NotInvited, true},
        };
        for (const auto &row : rows) {
            QCOMPARE(GeneralSettings::set("Contacts/policy"_s, QString::fromUtf8(row.policy)), QString());
            const Judgement judgement = C(path).judge(QString::fromUtf8(row.name), row.key, row.direction);
            QVERIFY2(judgement.verdict == row.verdict && judgement.isStranger() == row.isStranger, row.name);
            QVERIFY2(judgement.text.isNull() == (row.verdict == Verdict::Known), row.name);
        }
        // The number of strangers a day, and altogether, is bounded.
        QCOMPARE(GeneralSettings::set("Contacts/policy"_s, "first contact"_s), QString());
        QCOMPARE(GeneralSettings::set("Strangers/newPerDay"_s, "4"_s), QString());
        QVERIFY(C(path).judge("Еще один"_s, keyB).verdict == Verdict::NotInvited);
        QCOMPARE(GeneralSettings::set("Contacts/policy"_s, "all"_s), QString());
        QVERIFY(C(path).judge("Еще один"_s, keyB).verdict == Verdict::PinnedNow);
        QCOMPARE(GeneralSettings::set("Strangers/contacts"_s, "5"_s), QString());
        QVERIFY(C(path).judge("И еще"_s, keyB).verdict == Verdict::NotInvited);
    }

    void trustsOnlyAKeyThatAPersonHasSeen()
    {
        const QString path = file("trusted.conf");
        CContacts contacts(path);
        contacts.add("Анна"_s, "h"_s, 5);
        contacts.judge("Анна"_s, keyA);
        contacts.judge("Анна"_s, keyB);
        QVERIFY(contacts.find("анна"_s)->key == keyA); // being shown another one changes nothing
        contacts.judge("Анна"_s, keyC);
        QVERIFY(contacts.trust("Анна"_s, QString()).contains(fingerprintWords(keyC).join(QLatin1Char(' '))));
        QVERIFY(!contacts.trust("Анна"_s, "абажур"_s).isNull());
        CContact now;
        QCOMPARE(contacts.trust("Анна"_s, shownFingerprint(keyC).section(QLatin1String(" ("), 0, 0), &now),
                 QString());
        QVERIFY(now.key == keyC && now.offered.isEmpty() && now.address == "h"_s && now.port == 5);
        QVERIFY(CContacts(path).judge("Анна"_s, keyC).verdict == Verdict::Known);
        QVERIFY(CContacts(path).judge("Анна"_s, keyA).verdict == Verdict::KeyChanged);
        QCOMPARE(contacts.trust("Анна"_s, QString()), QString()); // the only one
        QVERIFY(contacts.find("Анна"_s)->key == keyA);
        QCOMPARE(contacts.add("Анна"_s, "g"_s, 6), QString()); // a new address, the key stays
        QVERIFY(contacts.find("Анна"_s)->key == keyA && contacts.find("Анна"_s)->port == 6);

        CContact mailed;
        mailed.name = "Анна"_s;
        mailed.key = keyB;
        QVERIFY(contacts.import(mailed).contains("уже другой ключ"_s));
        mailed.key = keyA;
        mailed.address = "new"_s;
        QCOMPARE(contacts.import(mailed), QString());
        QCOMPARE(contacts.find("Анна"_s)->address, "new"_s);
        QCOMPARE(contacts.remove("АННА"_s), QString());
        QVERIFY(!contacts.find("Анна"_s) && !contacts.remove("Анна"_s).isNull());
    }

    // Eight processes at once: nothing that one has added gets lost, and a new name goes to one key only.
    void keepsContactsOfManyProcesses()
    {
        const QString path = file("crowd.conf");
        const int eachAdds = 10;
        const auto addsAll = [&](int number) {
            CContacts contacts(path);
            bool isDone = true;
            for (int i = 0; i < eachAdds; ++i)
                isDone &= contacts.add("Я%1в%2"_s.arg(number).arg(i), "h"_s, 1).isNull();
            const QByteArray key(32, char('0' + number));
            const Verdict verdict = contacts.judge("Все"_s, key, CContacts::Placed).verdict;
            return isDone && (verdict == Verdict::PinnedNow || verdict == Verdict::KeyChanged) ? 0 : 1;
        };
        QCOMPARE(Forked::failures(8, addsAll), 0);
        CContacts contacts(path);
        QCOMPARE(contacts.list().size(), 8 * eachAdds + 1);
        QCOMPARE(contacts.find("Все"_s)->offered.size(), CContact::mostOffered);
    }

    void noDamageOfTheFileGoesUnnoticed()
    {
        const QString path = file("damaged.conf");
        fillContacts(path);
        const QByteArray whole = TestInstallation::read(path);
        const QByteArray names = namesIn(contactsFromText(whole).contacts);
        QCOMPARE(names, "Аннаa Борис- Чужойc Гадg"_s.toUtf8());
        QCOMPARE(contactsToText(contactsFromText(whole).contacts), whole);
        for (int at = 1; at < whole.size(); ++at) {
            QVERIFY2(!contactsFromText(whole.left(at)).damage.isNull(), qPrintable(QString::number(at)));
            QVERIFY2(!contactsFromText(whole.mid(at)).damage.isNull(), qPrintable(QString::number(at)));
        }
        // A copy of what is damaged is kept, what is whole stays in use, and people are told.
        const QByteArray damaged = QByteArray(whole).replace("port: 2", "port: 2222222");
        QVERIFY(TestInstallation::write(path, damaged));
        MessageCatcher catcher;
        CContacts contacts(path);
        QCOMPARE(namesIn(contacts.list()), "Аннаa Чужойc Гадg"_s.toUtf8());
        QVERIFY(catcher.takeAll().contains("испорчены"_s));
        const QStringList aside = QDir(place.path()).entryList({"damaged.conf.damaged-*"_s});
        QCOMPARE(aside.size(), 1);
        QCOMPARE(TestInstallation::read(place.filePath(aside.first())), damaged);
        QVERIFY(contactsFromText(TestInstallation::read(path)).damage.isNull());

        // A later version's file is neither read nor changed.
        const QByteArray later = "abonents 2\nsomething\n";
        QVERIFY(TestInstallation::write(path, later));
        QVERIFY(contacts.judge("Новый"_s, keyB).verdict == Verdict::NotStored);
        QVERIFY(contacts.add("Новый"_s, "h"_s, 1).contains("более новой"_s));
        QCOMPARE(TestInstallation::read(path), later);
    }

    // Who may not change the settings, a process of a higher level say, believes whom it knows and nobody
    // else.
    void pinsNothingWhereItMayNotWrite()
    {
        if (!Forked::canActAs(65534))
            QSKIP("needs root");
        const QString path = file("closed/abonents.conf");
        fillContacts(path);
        QCOMPARE(::chmod(qPrintable(file("closed")), 0755), 0);
        QCOMPARE(::chmod(qPrintable(place.path()), 0755), 0);
        const auto verdictOf = [&](const QString &name, const QByteArray &key) {
            return Forked::run([&] { return int(CContacts(path).judge(name, key).verdict); }, 65534);
        };
        QCOMPARE(verdictOf("Анна"_s, keyA), int(Verdict::Known));
        QCOMPARE(verdictOf("Анна"_s, keyB), int(Verdict::KeyChanged));
        QCOMPARE(verdictOf("Новый"_s, keyB), int(Verdict::NotStored));
    }

    void anyNameSurvivesFileAndMail()
    {
        for (const QString &name : {"a\nname: b\n\nend 1"_s, " b "_s, "%41"_s, "c\r\t\u2028"_s, "> e:"_s}) {
            CContact contact;
            contact.name = contact.address = name;
            contact.key = randomBytes(32);
            QString trouble;
            const QByteArray mail = mailedContact(contact);
            const auto read =
                contactFromMail("Hi!\r\n> > " + QByteArray(mail).replace("\n", "\r\n> > "), &trouble);
            QVERIFY2(read && read->name == name && read->key == contact.key, qPrintable(trouble));
            const ParsedContacts parsed = contactsFromText(contactsToText({contact}));
            QVERIFY(parsed.damage.isNull() && parsed.contacts.first().name == name);
            // Words and key have to fit: one digit changed is noticed.
            const int digit = mail.indexOf("key: ") + 5;
            QVERIFY(!contactFromMail(QByteArray(mail).replace(digit, 1, mail.at(digit) == '0' ? "1" : "0"),
                                     &trouble));
            QVERIFY(!contactFromMail(mail.left(mail.size() - 5), &trouble) && !trouble.isNull());
        }
    }

    void generalSettingsKeepWhatIsNotTheirs()
    {
        const QString path = Global::generalSettingsFilePath();
        QVERIFY(TestInstallation::write(
            path, "; comment\n[Other]\nkey=1\n[Strangers]\nmessageMb=abc\ndiskMb=2000000\n"));
        QVERIFY(GeneralSettings::set("Strangers/newPerDay"_s, "1001"_s).contains("от 0 до 1000"_s));
        QVERIFY(!GeneralSettings::set("Other/key"_s, "2"_s).isNull());
        QVERIFY(!GeneralSettings::set("Abonent/name"_s, "?"_s).isNull());
        QCOMPARE(GeneralSettings::set("Abonent/name"_s, "Ян, \"сам\"; 1"_s), QString());
        QCOMPARE(GeneralSettings::set("Strangers/messagesPerDay"_s, "3"_s), QString());
        QVERIFY(TestInstallation::read(path).startsWith("; comment\n[Other]\nkey=1\n"));
        const GeneralSettings settings = GeneralSettings::load();
        QCOMPARE(settings.ownName, "Ян, \"сам\"; 1"_s);
        QVERIFY(settings.quotas.messageBytes == 64 << 20 && settings.quotas.diskBytes == 1 << 30);
        const StrangerUsage used{2, (1 << 30) - 10};
        QVERIFY(quotaRefusal(settings.quotas, used, 10).isNull());
        QVERIFY(quotaRefusal(settings.quotas, used, 11).contains("Место"_s));
        QVERIFY(quotaRefusal(settings.quotas, {3, 0}, 1).contains("в сутки"_s));
        QVERIFY(quotaRefusal(settings.quotas, {0, 0}, (64 << 20) + 1).contains("не более 64"_s));
    }

    // What a crash has kept from its place gets there in the order in which it was stored.
    void keepsTheOrderOverACrash()
    {
        const QDir messages = Global::messagesDir(0);
        QVERIFY(Global::makePath(messages));
        CStoredIndex index;
        QCOMPARE(index.open(messages.filePath("stored.index"_s)), QString());
        QByteArray expected;
        for (const char mark : {'\x7f', '\x01', '\xff', '\x10', '\x02'}) {
            const QByteArray key(16, mark);
            QCOMPARE(index.add({{key, keyA}}), QString());
            const QString kept = messages.filePath("incomplete/"_s + QString::fromLatin1(key.toHex()));
            QVERIFY(TestInstallation::write(kept + "/text.txt"_s, key));
            expected += key;
        }
        QCOMPARE(CInbox(0).prepare(), QString());
        QByteArray order;
        const QDir input = Global::inputMessagesDir(0);
        for (const QString &number : input.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name))
            order += TestInstallation::read(input.filePath(number + "/text.txt"_s));
        QCOMPARE(order.toHex(), expected.toHex());
    }

    // Contents go into the user's folder once, on whatever file system and after a crash at any moment.
    void putsContentsIntoTheFolderOnce()
    {
        const QTemporaryDir far(QDir::homePath() + "/tst_delivery-XXXXXX"_s); // not in memory, as place is
        for (const QString &folder : {file("near"), far.path()}) {
            for (const char *left : {"", "d", "m", "dm"}) { // draft, mark
                const QString message = file("leaving/") + QString(32, QLatin1Char('a'));
                const bool isCopied = folder == far.path() && QByteArray(left) == "m";
                const QString result = folder + "/f.txt"_s;
                QVERIFY(TestInstallation::write(message + "/f.txt"_s, "contents") &&
                        TestInstallation::write(message + "/message.txt"_s, "about") &&
                        TestInstallation::write(folder + "/g"_s, "other") &&
                        (!strchr(left, 'm') || TestInstallation::write(message + ".copied"_s, "")) &&
                        (!strchr(left, 'd') ||
                         TestInstallation::write(folder + "/.%1.part"_s.arg(QFileInfo(message).fileName()),
                                                 "con")) &&
                        (!isCopied || TestInstallation::write(result, "contents")));
                QCOMPARE(handOut(message, folder), QString());
                QCOMPARE(handOut(message, folder), QString());
                QCOMPARE(TestInstallation::read(result), QByteArray("contents"));
                QCOMPARE(QDir(message).entryList(QDir::Files), QStringList("message.txt"_s));
                const bool isLeft =
                    folder != far.path() && strchr(left, 'd'); // nobody's, on this file system
                QCOMPARE(QDir(folder).entryList(QDir::Files | QDir::Hidden).size(), isLeft ? 3 : 2);
                QVERIFY(QDir(folder).removeRecursively() && QDir(file("leaving")).removeRecursively());
            }
        }
    }

    void journalKeepsAllThatWasFlushed()
    {
        const QString path = file("journal.db");
        QVERIFY(entriesIn(path).isEmpty());
        // Two processes write; one of them ends without a farewell.
        const auto writes = [&](int number) {
            CMessageJournal journal(0, JournalRetention(), path);
            for (int i = 0; i < 300; ++i)
                journal.add(entryOf(number ? "Анна"_s : "Бо рис"_s, QString::number(i)));
            const bool isFlushed = journal.flush(60000);
            if (number)
                ::kill(::getpid(), isFlushed ? SIGKILL : SIGSEGV);
            return isFlushed ? 0 : 1;
        };
        QCOMPARE(Forked::failures(2, writes), 1); // the one that was killed
        QCOMPARE(entriesIn(path).size(), 600);
        const QVector<JournalEntry> entries = entriesIn(path, "борис"_s);
        QCOMPARE(entries.size(), 300);
        for (int i = 0; i < entries.size(); ++i)
            QCOMPARE(entries.at(i).text, QString::number(i));
        const JournalEntry &last = entries.last();
        QVERIFY(last.kind == JournalRow::Received && last.size == 7 && last.digest == keyA &&
                last.message == "0011"_s);
        QCOMPARE(last.name, "имя\n\u202e.txt"_s);
        QCOMPARE(last.date.offsetFromUtc(), QDateTime::currentDateTime().offsetFromUtc());
        QCOMPARE(entriesIn(path, QString(), 3).last().text, entriesIn(path).last().text);
        const JournalTotals totals = CMessageJournal::received(path, QDateTime(), "АННА"_s);
        QVERIFY(totals.messages == 300 && totals.bytes == 2100);
        QString trouble;
        QVERIFY(
            CMessageJournal::entries(path, QDateTime::currentDateTime().addDays(1), QString(), 0, &trouble)
                .isEmpty());
        QVERIFY(TestInstallation::log().contains("принято, 'Анна', имя"));

        CMessageJournal(0, {0, 5}, path)
            .add(entryOf("В"_s, "new"_s)); // keeps the latest five, and the new one
        QCOMPARE(entriesIn(path).size(), 6);
    }

    void journalOutlivesDamage_data()
    {
        QTest::addColumn<int>("way");
        const char *ways[] = {"garbage", "cut", "pages overwritten", "damaged while it is open"};
        for (int way = 0; way < 4; ++way)
            QTest::newRow(ways[way]) << way;
    }
    void journalOutlivesDamage()
    {
        QFETCH(int, way);
        const QString path = place.filePath("hurt%1.db"_s.arg(way));
        MessageCatcher catcher;
        {
            CMessageJournal journal(0, JournalRetention(), path);
            for (int i = 0; i < 100; ++i)
                journal.add(entryOf("Анна"_s, QString(200, QLatin1Char('x'))));
            QVERIFY(journal.flush(60000));
            if (way == 3) {
                QVERIFY(QFile::rename(path, path + ".gone"_s)); // what another process does that finds damage
                journal.add(entryOf("Анна"_s, "after"_s));
                QVERIFY(journal.flush(60000));
                QCOMPARE(entriesIn(path).size(), 1);
                return;
            }
        }
        QByteArray bytes = TestInstallation::read(path);
        QVERIFY(bytes.size() > 16384);
        if (way == 0)
            bytes.fill('?');
        else if (way == 1)
            bytes.truncate(bytes.size() / 2);
        else
            bytes.replace(4096, 8192, QByteArray(8192, '\xff'));
        QVERIFY(TestInstallation::write(path, bytes));
        // Several processes find it at once; each has its row in the one new journal.
        const auto writes = [&](int) {
            CMessageJournal journal(0, JournalRetention(), path);
            journal.add(entryOf("Анна"_s, "after"_s));
            return journal.flush(60000) ? 0 : 1;
        };
        QCOMPARE(Forked::failures(3, writes), 0);
        QCOMPARE(entriesIn(path).size(), 3);
        const QStringList aside = QDir(place.path()).entryList({QFileInfo(path).fileName() + ".damaged-*"_s});
        QCOMPARE(aside.filter(QRegularExpression("[0-9]$"_s)).size(), 1);
        QCOMPARE(TestInstallation::read(place.filePath(aside.first())), bytes);
    }

    void journalWaitsForRoomOnAFullDisk()
    {
        const QString disk = file("disk");
        QVERIFY(QDir().mkpath(disk));
        const int result = Forked::run([&] {
            if (!Forked::mountDisk(disk, "size=256k"))
                return 77;
            const MessageCatcher catcher;
            CMessageJournal journal(0, JournalRetention(), disk + "/j.db"_s);
            TestInstallation::write(disk + "/full"_s, QByteArray(300000, 'x'));
            journal.add(entryOf("Анна"_s, "first"_s));
            if (journal.flush(100))
                return 1;
            QFile::remove(disk + "/full"_s);
            return journal.flush(20000) && entriesIn(disk + "/j.db"_s).size() == 1 ? 0 : 2;
        });
        if (result == 77)
            QSKIP("needs root");
        QCOMPARE(result, 0);
    }

    void journalLeavesOthersDataAlone()
    {
        const QString shared = file("shared.db");
        QVERIFY(runSql(shared, "CREATE TABLE theirs (x); INSERT INTO theirs VALUES (1);"));
        QVERIFY(entriesIn(shared).isEmpty());
        CMessageJournal(0, JournalRetention(), shared).add(entryOf("А"_s, QString()));
        QCOMPARE(entriesIn(shared).size(), 1);
        QVERIFY(runSql(shared, "INSERT INTO theirs SELECT x FROM theirs;"));
        // A later version's is not written to, and nobody waits for it.
        QVERIFY(runSql(shared, "UPDATE message_journal_format SET version = 2;"));
        const MessageCatcher catcher;
        CMessageJournal journal(0, JournalRetention(), shared);
        journal.add(entryOf("А"_s, QString()));
        QVERIFY(!journal.flush(60000));
        QCOMPARE(entriesIn(shared).size(), 1);
    }

private:
    QString file(const char *name) const { return place.filePath(QString::fromUtf8(name)); }

    QTemporaryDir place{TestInstallation::quickTemplate()};
    CIdentity anna;
    CIdentity boris;
    QByteArray exportedBefore;
};

QTEST_GUILESS_MAIN(TestDelivery)
#include "tst_delivery.moc"
