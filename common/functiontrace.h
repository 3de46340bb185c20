// Scope guards: trace lines in the log, the trail of recently entered scopes, timing.
//
// While Debug/all is on, a traced scope writes a line when it begins and one when it ends, and the
// log writer writes every category. While it is off, only the trail of the last 64 scopes is kept.
#pragma once

#include "common/exports.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QStringList>

/// The names of the most recently entered scopes while tracing is off, oldest first, at most 64.
/// This module's own, never destroyed, since threads may still trace while the process ends.
extern QStringList &gStack;
extern QMutex &gStackMutex; // guards gStack

/// Traces the scope it lives in. [any thread]
class RUNTIME_EXPORT _CFunctionDebug
{
public:
    /// The scope is named @a function, in Latin-1; null counts as empty.
    explicit _CFunctionDebug(const char *function);

    /// The scope is named "file:line function", the first six characters of @a file left out.
    _CFunctionDebug(const char *file, int line, const char *function);

    ~_CFunctionDebug();

    _CFunctionDebug(const _CFunctionDebug &) = delete;
    _CFunctionDebug &operator=(const _CFunctionDebug &) = delete;

    /// A copy of the trail.
    static QStringList stack();

private:
    void enter(const QString &scope);

    QString name; // null while tracing is off
};

/// Writes how long the scope it lives in has taken, unless that is less than 1 ms and @a logAlways is
/// false. [any thread]
class RUNTIME_EXPORT _CFunctionMeasure
{
public:
    _CFunctionMeasure(const char *scopeName, bool logAlways);
    ~_CFunctionMeasure();

    _CFunctionMeasure(const _CFunctionMeasure &) = delete;
    _CFunctionMeasure &operator=(const _CFunctionMeasure &) = delete;

private:
    QString name;
    QElapsedTimer timer; // runs from the construction
    bool alwaysLog;
};

#define FUNCTION_TRACE_NAME_OF_LINE(line) functionTrace##line
#define FUNCTION_TRACE_NAME(line) FUNCTION_TRACE_NAME_OF_LINE(line)

/// At the top of a function: traces it under its full signature.
#define TRACE_FUNCTION const _CFunctionDebug FUNCTION_TRACE_NAME(__LINE__)(Q_FUNC_INFO)
