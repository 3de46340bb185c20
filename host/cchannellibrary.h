// One channel library: loading it, checking that it is made for this program, its plug-in object.
#pragma once

#include "interfaces/pluginentry.h"

#include <QLibrary>
#include <QString>

#include <memory>

class CChannelLibrary
{
public:
    /// Loads a library and makes its plug-in object. [server thread]
    ///
    /// The library stays loaded until the process ends, also after a failure: a thread of it may
    /// still be executing its code.
    /// @return null on success, else what is wrong and what to do, in Russian
    QString load(const QString &fileName);

    /// The plug-in object; null until load() has succeeded. Owned by this object.
    CChannelPlugin *plugin() const { return object.get(); }

private:
    QLibrary library;
    std::unique_ptr<CChannelPlugin, DeleteInstanceFunction> object{nullptr, nullptr}; // the library frees it
};
