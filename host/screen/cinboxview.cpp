#include "host/screen/cinboxview.h"

#include "host/screen/textfile.h"

#include <QFileInfo>

#include <cmath>

namespace {

constexpr int mostMessages = 1000;
constexpr qint64 sameMomentMs = 2000;

/// "2026-11-23 09:00:00 +0300"
QDateTime dateOf(const QString &text, const QDateTime &ofFile)
{
    const QDateTime local = QDateTime::fromString(text.left(19), QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    const int zone = text.midRef(20).toInt();
    const int offset = (zone / 100 * 60 + zone % 100) * 60;
    const QDateTime date(local.date(), local.time(), Qt::OffsetFromUTC, offset);
    // The file knows the moment better, unless it has been copied.
    return date.isValid() && std::abs(date.msecsTo(ofFile)) > sameMomentMs ? date : ofFile;
}

OfferFrame::Kind kindOf(const QString &text)
{
    if (text == QStringLiteral("текст"))
        return OfferFrame::Text;
    return text == QStringLiteral("файл") ? OfferFrame::File : OfferFrame::Tree;
}

/// Takes a line of the description: "От: Борис".
void takeLine(const QString &line, const QDateTime &ofFile, ScreenMessage *message)
{
    const QString what = line.section(QStringLiteral(": "), 0, 0);
    const QString value = line.section(QStringLiteral(": "), 1);
    if (what == QStringLiteral("От"))
        message->abonent = value;
    else if (what == QStringLiteral("Принято"))
        message->date = dateOf(value, ofFile);
    else if (what == QStringLiteral("Вид"))
        message->kind = kindOf(value);
    else if (what == QStringLiteral("Файл"))
        message->name = value;
    else if (what == QStringLiteral("Размер"))
        message->size = value.toLongLong();
    else if (what == QStringLiteral("Сообщение"))
        message->identity = value;
}

/// @return a message without identity when there is no description of one
ScreenMessage readMessage(const QString &place)
{
    ScreenMessage message;
    message.state = ScreenMessage::Received;
    message.place = place;
    const QString path = place + QStringLiteral("/message.txt");
    const QStringList lines = beginningOfText(path).split(QLatin1Char('\n'));
    const QDateTime ofFile = QFileInfo(path).lastModified();
    for (const QString &line : lines)
        takeLine(line, ofFile, &message);
    if (message.kind == OfferFrame::Text)
        message.text = beginningOfText(place + QStringLiteral("/text.txt"));
    return message;
}

} // namespace

bool CInboxView::look()
{
    const QStringList names =
        directory.entryList({QStringLiteral("[0-9]*")}, QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    const QStringList latest = names.mid(qMax(0, names.size() - mostMessages));
    std::map<QString, ScreenMessage> now;
    bool isChanged = false;
    for (const QString &name : latest) {
        auto found = known.extract(name);
        if (found.empty()) {
            isChanged = true;
            now.emplace(name, readMessage(directory.absoluteFilePath(name)));
        } else {
            now.insert(std::move(found));
        }
    }
    isChanged |= !known.empty();
    known.swap(now);
    return isChanged;
}

std::vector<ScreenMessage> CInboxView::messages() const
{
    std::vector<ScreenMessage> result;
    for (const auto &[name, message] : known) {
        if (!message.identity.isEmpty())
            result.push_back(message);
    }
    return result;
}
