// What --json prints: one object in each line of standard output.
//
// "event" is a stable English word for what happened, "code" one for why something failed. Times are ISO 8601
// with zone, sizes are bytes, names and texts are strings.
#pragma once

#include <QDateTime>
#include <QJsonObject>

/// Prints an object as a line of standard output.
void printJsonLine(const QJsonObject &object);

/// An object that begins with its event.
QJsonObject jsonEvent(const QString &event);

/// "2026-11-23T09:00:00.123+03:00"
QString jsonTime(const QDateTime &time);
