// All settings of an installation as one text that can be kept, mailed and taken by another installation.
//
//   abonent settings 1               the format
//   # /.../channelIp.conf            lines that begin so are passed over, as are empty ones
//   port=18001                       one line for each key, as `settings set` takes it
//   ...
//   end                              so a text that was cut off is known
//
// UTF-8. In values control characters, line separators, "%" and blanks at the ends are written as %XX for
// each byte.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace SettingsText {

/// @param trouble null, or why there is no text: a file is damaged or holds a value that no one would take
QByteArray exported(QString *trouble);

/// The assignments of a text, for CSettingsChanges. @param trouble null, or what is wrong with the text
QStringList assignments(const QByteArray &text, QString *trouble);

/// Those that would change something, or be refused.
QStringList differing(const QStringList &assignments);

} // namespace SettingsText
