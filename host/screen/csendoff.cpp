#include "host/screen/csendoff.h"

#include "host/conversation/coutbox.h"
#include "host/conversation/transporttasks.h"

#include <QFile>

void CSendOff::send(const Outgoing &what)
{
    QString remark;
    const QString trouble = accept(what, &remark);
    emit done(what, trouble, remark);
}

QString CSendOff::accept(const Outgoing &what, QString *remark)
{
    COutboxWriter writer(level);
    QString error = writer.begin(what.abonent, QString(), CContact::defaultPort);
    if (error.isNull())
        error = what.isPath ? writer.addPath(QFile::encodeName(what.text)) : writer.addText(what.text);
    if (!error.isNull())
        return error;
    if (!writer.leftOut().isEmpty())
        *remark = QStringLiteral("Пропущено, это не файл и не каталог: %1")
                      .arg(writer.leftOut().join(QStringLiteral(", ")));

    // Before it can be delivered: afterwards nobody knows the text any more.
    const QString identity = QString::fromLatin1(writer.entry().messages.front().offer.identity.toHex());
    const QString notKept = sent.keep(identity, what.isPath ? QString() : what.text);
    if (!notKept.isNull())
        *remark = notKept;
    error = writer.commit();
    if (!error.isNull()) {
        sent.forget(identity);
        return error;
    }
    const QString untold = TransportTasks::add(level, {TransportTask::Deliver, writer.entry().number});
    if (!untold.isNull())
        *remark = untold;
    return QString();
}
