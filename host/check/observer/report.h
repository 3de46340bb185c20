// What the observer tells the validator: which rules a host has kept, and which it has broken.
//
// Lines in the file that the environment variable ABONENT_OBSERVER_REPORT names, each written at once:
//
//   kept RULE           it was there to be broken, and was not
//   broken RULE TEXT
//   idle                nothing more will happen unless the host wants it
#pragma once

#include <QString>

/// [any thread] throughout
namespace Report {

void kept(const char *rule);
void broken(const char *rule, const QString &text);
void idle();
bool isBroken(const char *rule);

/// One of the two.
void judge(const char *rule, bool isKept, const QString &text);

} // namespace Report
