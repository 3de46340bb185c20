// The next free name of a message directory or a task file.
//
// Names are sequence numbers of eight digits. The last number given out for a directory is kept for
// the life of the process, so successive calls go up also before the caller has created the entry.
//
// Nothing is created here and other processes are not asked, so a name is only a proposal until its
// entry exists. Who shares the directory with other processes creates exclusively, and takes the
// next name when somebody was quicker:
//
//     QString created;
//     for (int attempt = 0; attempt < 1000 && created.isEmpty(); ++attempt) {
//         const QString name = Global::nextMessageDirName(directory);
//         if (name.isEmpty())
//             continue;                           // 100 in a row are taken; the next call looks anew
//         if (directory.mkdir(name))              // fails when the entry exists
//             created = name;
//         else if (!directory.exists(name))
//             break;                              // not a rival: no rights, no space
//     }
//
// and for a task a QFile opened with QIODevice::NewOnly in place of mkdir(). Two processes that do so
// never end with one name twice.
#pragma once

#include "common/exports.h"

#include <QString>

class QDir;

namespace Global {

/// A name like "00000042" that @a directory does not hold yet.
/// @return a null text when the next 100 names are all taken; the next call looks at the directory again
/// [any thread], one call at a time in a process: the caller serialises
RUNTIME_EXPORT QString nextMessageDirName(const QDir &directory);

/// A name like "00000042.task" that @a directory does not hold yet.
/// @return a name like "_16838.task", untested, when the next 99 names are all taken
/// [any thread], one call at a time in a process: the caller serialises
RUNTIME_EXPORT QString nextTaskFileName(const QDir &directory);

} // namespace Global
