// The throw-away installation that a test program stands in: its settings/ and data/ directories.
#pragma once

#include <QByteArray>
#include <QString>

#include <functional>

/// "text"_s
inline QString operator""_s(const char *text, std::size_t size)
{
    return QString::fromUtf8(text, static_cast<int>(size));
}

/// Runs the event loop until a condition holds, for 30 s at most. @return whether it does
bool soon(const std::function<bool()> &condition);

/// @return a TCP port on which nobody listens now
int freePort();

namespace TestInstallation {

/// The directory above the executable's; its path without a slash at the end.
QString path();

/// Removes settings/ and data/. Best at the start: the runtime keeps what it has read.
void clean();

/// settings.ini; writing makes the directory too. An absent file reads as empty.
QString settingsPath();
bool writeSettings(const QByteArray &text);
QByteArray settings();

/// All logs of a secrecy level, one after another, in the order of their names.
QByteArray log(int level = 0);

/// Any file; an absent one reads as empty.
bool write(const QString &fileName, const QByteArray &data);
QByteArray read(const QString &fileName);

/// The rights of a file or directory, as in QFile::Permissions, but those of the asking user.
int rights(const QString &fileName);

/// Makes what @a entries list in @a place, a slash behind directories: "F=text sub/".
void plant(const QString &place, const QString &entries);

/// For a QTemporaryDir that lies in memory, where there is such a place: there a sync costs nothing.
QString quickTemplate();

} // namespace TestInstallation
