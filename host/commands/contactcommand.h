// What `abonent contact` does, one function for each of its words. They print what people want to know and
// return an exit code.
#pragma once

#include <QStringList>

namespace ContactCommand {

/// Adds a contact, or gives the one of that name another address. @param address with or without port
int add(const QString &name, const QString &address);

/// All contacts, a line each.
int list();

int remove(const QString &name);

/// Accepts a changed key. @param key words, short form or all digits; empty: the only one that was shown
int trust(const QString &name, const QString &key);

/// Refuses somebody from now on, or no longer.
int block(const QString &name, bool isBlocked);

/// Prints a contact to be mailed. @param name empty: this installation's own
/// @param address where this installation can be reached, if its own is printed; may be empty
int exportText(const QString &name, const QString &address);

/// Takes a mailed contact in. @param fileName "-": standard input
int import(const QString &fileName);

/// One contact with all that is known of it. @param name empty: this installation's own name and key
int show(const QString &name);

} // namespace ContactCommand
