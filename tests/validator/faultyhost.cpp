// The example host above the faulty layer: its library is the layer, which lies over the real one.
#include "tests/validator/faultylayer.h"

#include <QCoreApplication>
#include <QLibrary>

#include <cstring>

namespace {

class LayeredLibrary
{
public:
    explicit LayeredLibrary(const QString &name) : library(name)
    {
        FaultyLayer::over(reinterpret_cast<ApiVersionFunction>(library.resolve(apiVersionSymbol)),
                          reinterpret_cast<InitDebugFunction>(library.resolve(initDebugSymbol)),
                          reinterpret_cast<InstanceFunction>(library.resolve(instanceSymbol)),
                          reinterpret_cast<DeleteInstanceFunction>(library.resolve(deleteInstanceSymbol)));
    }
    static QFunctionPointer resolve(const char *symbol)
    {
        const auto is = [symbol](const char *name) { return std::strcmp(symbol, name) == 0; };
        return is(apiVersionSymbol)  ? reinterpret_cast<QFunctionPointer>(FaultyLayer::apiVersion)
               : is(initDebugSymbol) ? reinterpret_cast<QFunctionPointer>(FaultyLayer::initDebug)
               : is(instanceSymbol)  ? reinterpret_cast<QFunctionPointer>(FaultyLayer::instance)
                                     : reinterpret_cast<QFunctionPointer>(FaultyLayer::deleteInstance);
    }

    QString errorString() const { return library.errorString(); }

private:
    QLibrary library;
};

} // namespace

#define QLibrary LayeredLibrary
#include "examples/smallhost/main.cpp"
