// Output for scripts: one JSON object per line on standard output.
#pragma once

class QJsonObject;

/// Prints @a object on a line of its own.
void printJsonLine(const QJsonObject &object);
