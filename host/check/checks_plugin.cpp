// Checks of the library and its plug-in object; no server runs here.
#include "host/check/cfixture.h"
#include "host/check/checks.h"

#include <QMetaMethod>
#include <QThread>

#include <memory>
#include <thread>

namespace {

using PluginPointer = std::unique_ptr<CChannelPlugin, DeleteInstanceFunction>;

PluginPointer makePlugin(const EntryPoints &entries)
{
    return PluginPointer(entries.instance(), entries.deleteInstance);
}

// The names that hosts connect by, in the order of the contract.
constexpr const char *methods[] = {
    "signal connected(QString,int) abonentName connectionId",
    "signal notConnected(QString) abonentName",
    "signal disconnected(QString,int,bool) abonentName connectionId wasUseful",
    "signal finished()",
    "slot settingsWasChanged()",
    "slot connectToAbonent(QString,QByteArray) abonentName abonentsData",
    "slot disconnectFromAbonent(QString,int) abonentName connectionId",
    "slot keepAliveConnection(int) connectionId",
};

QByteArray described(const QMetaMethod &method)
{
    QByteArray text = method.methodType() == QMetaMethod::Signal ? "signal " : "slot ";
    text += method.methodSignature();
    const QList<QByteArray> names = method.parameterNames();
    for (const QByteArray &name : names)
        text += ' ' + name;
    return text;
}

void requireFreshMembers(const CChannelServer &server)
{
    require(!server.parent() && server.thread() == QThread::currentThread(),
            QStringLiteral("Новый сервер имеет родителя или живет в чужом потоке"));
    require(server.hostValue == 1 && server.monitorHandle == 0,
            QStringLiteral("Первые члены нового сервера равны %1 и %2, а должны быть 1 и 0")
                .arg(server.hostValue)
                .arg(server.monitorHandle));
    require(!server.protocolFactory && !server.monitor && !server.journal,
            QStringLiteral("У нового сервера уже заданы фабрика протоколов, монитор или журнал"));
}

/// What one of several threads does with the plug-in.
QString usePlugin(const EntryPoints &entries, int type, const QString &name)
{
    constexpr int rounds = 50;
    for (int i = 0; i < rounds; ++i) {
        const PluginPointer plugin = makePlugin(entries);
        const std::unique_ptr<CChannelServer> server(plugin->create());
        int delay = 10;
        plugin->incCallTimeout(&delay);
        plugin->decCallTimeout(&delay);
        if (plugin->type() != type || plugin->name() != name || !server)
            return QStringLiteral("В другом потоке объект канала отвечает иначе: тип %1, имя '%2'")
                .arg(QString::number(plugin->type()), plugin->name());
    }
    return QString();
}

} // namespace

void Checks::entryPoints(CFixture &fixture)
{
    QLibrary file(fixture.arguments.channel);
    file.setLoadHints(QLibrary::ResolveAllSymbolsHint | QLibrary::PreventUnloadHint);
    require(file.load(), QStringLiteral("Библиотека не загружается. %1").arg(file.errorString()));
    QStringList missing;
    for (const char *symbol : {apiVersionSymbol, initDebugSymbol, instanceSymbol, deleteInstanceSymbol}) {
        if (!file.resolve(symbol))
            missing << QLatin1String(symbol);
    }
    require(missing.isEmpty(), QStringLiteral("Нет функций: %1").arg(missing.join(QLatin1String(", "))));
}

void Checks::apiVersion(CFixture &fixture)
{
    fixture.load(); // the program's own gate, so that its refusals are what is checked
    const int again = ::entryPoints(fixture.arguments.channel).apiVersion();
    require(again == channelApiVersion, QStringLiteral("Второй вызов apiVersion() дал %1").arg(again));
}

void Checks::pluginObject(CFixture &fixture)
{
    const EntryPoints entries = ::entryPoints(fixture.arguments.channel);
    const PluginPointer one = makePlugin(entries);
    const PluginPointer other = makePlugin(entries);
    require(one && other && one != other,
            QStringLiteral("Два вызова instance() не дали двух разных объектов"));
    require(one->type() == other->type() && one->name() == other->name(),
            QStringLiteral("Объекты одного модуля отвечают на type() и name() по-разному"));
    require(!one->name().isEmpty(), QStringLiteral("Имя канала пустое"));
    fixture.step(QStringLiteral("deleteInstance() с нулевым указателем"));
    entries.deleteInstance(nullptr);
}

void Checks::pluginThreads(CFixture &fixture)
{
    const EntryPoints entries = ::entryPoints(fixture.arguments.channel);
    const int type = fixture.library.plugin()->type();
    const QString name = fixture.library.plugin()->name();
    constexpr int count = 4;
    QString errors[count];
    std::vector<std::thread> threads;
    threads.reserve(count);
    for (QString &error : errors)
        threads.emplace_back([&] { error = usePlugin(entries, type, name); });
    for (std::thread &thread : threads)
        thread.join();
    for (const QString &error : errors)
        require(error);
}

void Checks::callDelay(CFixture &fixture)
{
    constexpr int mostSteps = 1000;
    const CChannelPlugin *plugin = fixture.library.plugin();
    int delay = 10;
    const auto walk = [&](void (CChannelPlugin::*step)(int *) const, int direction) {
        for (int i = 0; i < mostSteps; ++i) {
            const int before = delay;
            (plugin->*step)(&delay);
            if (delay == before)
                return;
            require((delay > before) == (direction > 0),
                    QStringLiteral("Пауза %1 изменена не в ту сторону: %2").arg(before).arg(delay));
        }
        fail(QStringLiteral("За %1 шагов пауза не дошла до границы").arg(mostSteps));
    };
    walk(&CChannelPlugin::decCallTimeout, -1);
    const int least = delay;
    require(least >= 0, QStringLiteral("Наименьшая пауза отрицательна: %1").arg(least));
    walk(&CChannelPlugin::incCallTimeout, +1);
    require(delay != least, QStringLiteral("incCallTimeout() не увеличивает паузу %1").arg(delay));
    walk(&CChannelPlugin::decCallTimeout, -1);
    require(delay == least, QStringLiteral("Пауза вернулась к %1, а не к %2").arg(delay).arg(least));
}

void Checks::metaObject(CFixture &fixture)
{
    const std::unique_ptr<CChannelServer> server(fixture.library.plugin()->create());
    require(server != nullptr, QStringLiteral("create() вернул нулевой указатель"));
    // A slot that the channel's class declares anew stands once more in that class; hosts count in the base.
    const QMetaObject *base = server->metaObject();
    while (base && base->superClass() != &QObject::staticMetaObject)
        base = base->superClass();
    require(base, QStringLiteral("Мета-объект сервера не знает класса CChannelServer"));
    int index = base->methodOffset();
    for (const char *wanted : methods) {
        const QByteArray found = described(base->method(index++));
        require(found == wanted,
                QStringLiteral("На месте '%1' стоит '%2'").arg(QLatin1String(wanted), QLatin1String(found)));
    }
}

void Checks::freshServer(CFixture &fixture)
{
    const EntryPoints entries = ::entryPoints(fixture.arguments.channel);
    PluginPointer plugin = makePlugin(entries);
    const std::unique_ptr<CChannelServer> one(plugin->create());
    const std::unique_ptr<CChannelServer> other(plugin->create());
    require(one && other && one != other, QStringLiteral("Два вызова create() не дали двух разных серверов"));
    requireFreshMembers(*one);
    fixture.step(QStringLiteral("сервер без объекта канала"));
    plugin.reset();
    one->isHardwareOn();
}
