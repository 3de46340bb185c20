// What a look at the installation, or at a call, has found.
#pragma once

#include <QString>

#include <vector>

struct Finding
{
    enum Sign
    {
        Good,
        Attention, // works, but not as people would want it, or not for long
        Error,
    };

    Sign sign = Good;
    QString code;   // a stable English word for scripts; "ok" when nothing is wrong
    QString text;   // Russian, in one line; foreign names stand in it as they came
    QString advice; // what to do; null when nothing is to be done

    static Finding good(const QString &text) { return {Good, QStringLiteral("ok"), text, QString()}; }
    static Finding attention(const char *code, const QString &text, const QString &advice)
    {
        return {Attention, QString::fromLatin1(code), text, advice};
    }
    static Finding error(const char *code, const QString &text, const QString &advice)
    {
        return {Error, QString::fromLatin1(code), text, advice};
    }
};

using Findings = std::vector<Finding>;
