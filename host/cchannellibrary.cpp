#include "host/cchannellibrary.h"

#include "common/logger.h"

#include <QFileInfo>

QString CChannelLibrary::load(const QString &fileName)
{
    const QString name = QFileInfo(fileName).fileName();
    library.setFileName(fileName);
    library.setLoadHints(QLibrary::ResolveAllSymbolsHint | QLibrary::PreventUnloadHint);
    if (!library.load())
        return QStringLiteral("Не удалось загрузить модуль канала %1. %2").arg(name, library.errorString());

    const auto apiVersion = reinterpret_cast<ApiVersionFunction>(library.resolve(apiVersionSymbol));
    const auto initDebug = reinterpret_cast<InitDebugFunction>(library.resolve(initDebugSymbol));
    const auto instance = reinterpret_cast<InstanceFunction>(library.resolve(instanceSymbol));
    const auto deleteInstance =
        reinterpret_cast<DeleteInstanceFunction>(library.resolve(deleteInstanceSymbol));
    if (!apiVersion || !initDebug || !instance || !deleteInstance) {
        return QStringLiteral("Файл %1 не является модулем канала: в нем нет всех функций %2. "
                              "Уберите его из каталога channelPlugins.")
            .arg(name, QStringLiteral("apiVersion, initDebug, instance, deleteInstance"));
    }

    // Before anything else: with another version the meaning of every other call is unknown.
    const int version = apiVersion();
    if (version != channelApiVersion) {
        return QStringLiteral("Модуль канала %1 сделан для версии договора %2, а программе нужна версия %3. "
                              "Установите модуль и программу из одной поставки.")
            .arg(name, QString::number(version), QString::number(channelApiVersion));
    }
    initDebug(LoggerData::debugData());
    object = {instance(), deleteInstance};
    if (!object)
        return QStringLiteral("Модуль канала %1 не создал объект канала.").arg(name);
    return QString();
}
