// Why the network or the disk refuses, in Russian.
#pragma once

#include <QString>

/// What a number of errno means; the system's own words where this table has none. [any thread]
QString reasonOf(int error);

/// Likewise; when rights are lacking also whose, and to what.
/// @param path absolute or not; what was to be opened, made or written
QString reasonOf(int error, const QString &path);

/// A text that ends with what Qt or the system has said in English ("... Connection refused"), followed by
/// the same in Russian, in brackets; any other text as it is. [any thread]
QString explained(const QString &text);

/// The same alone: null when the text ends with nothing that is known.
QString explanationOf(const QString &text);

/// "каталог /a/b принадлежит root:root, права rwxr-xr-x". @return null when there is no such thing
QString ownerText(const QString &path);

/// The user the process acts as: "nobody".
QString actingUser();
