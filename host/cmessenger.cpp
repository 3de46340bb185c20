#include "host/cmessenger.h"

#include "common/global.h"
#include "common/logger.h"
#include "host/console/cconsole.h"
#include "host/conversation/cmessageprotocolfactory.h"

#include <QFile>

#include <algorithm>

namespace {

constexpr int debounceMs = 300; // a save passes through states in which the file is missing

} // namespace

CMessenger::CMessenger(CConsole &shownOn, CChannelMonitor &onMonitor, const CMessageProtocol::Context &around)
    : console(shownOn), monitor(onMonitor), context(around)
{
    debounce.setSingleShot(true);
    debounce.setInterval(debounceMs);
    connect(&debounce, &QTimer::timeout, this, &CMessenger::readSettings);
    connect(&watcher, &CLateWatcher::changed, &debounce, [this] { debounce.start(); });
}

CMessenger::~CMessenger() = default;

bool CMessenger::load()
{
    const QDir directory = Global::channelPluginsDir();
    const QStringList names = directory.entryList({QStringLiteral("*.so")}, QDir::Files, QDir::Name);
    for (const QString &name : names) {
        Channel channel;
        channel.library = std::make_unique<CChannelLibrary>();
        const QString error = channel.library->load(directory.absoluteFilePath(name));
        if (error.isNull()) {
            channels.push_back(std::move(channel));
        } else {
            debug(QStringLiteral("CMessenger"), error, DebugAlways, DebugFlagFileOnly);
            console.error(error);
        }
    }
    return !channels.empty();
}

bool CMessenger::keepOnly(int kind)
{
    const auto isOther = [kind](const Channel &channel) { return channel.library->plugin()->type() != kind; };
    channels.erase(std::remove_if(channels.begin(), channels.end(), isOther), channels.end());
    if (channels.empty())
        console.error(QStringLiteral("Нет модуля нужного канала"));
    return !channels.empty();
}

void CMessenger::open(bool isCallingOnly)
{
    Global::makePath(Global::settingsDir());
    if (!isCallingOnly)
        watcher.hurry();
    readSettings();
    for (Channel &channel : channels) {
        const CChannelPlugin *plugin = channel.library->plugin();
        channel.server.reset(plugin->create());
        CChannelServer *server = channel.server.get();
        server->monitor = &monitor;
        server->journal = context.journal;
        server->protocolFactory = new CMessageProtocolFactory(context); // the server's from now on
        server->monitorHandle =
            monitor.addConnection(plugin->type(), plugin->name(), QStringLiteral("Запуск"));

        // By the text of the signature: the contract class of the library is not ours.
        connect(server, SIGNAL(finished()), this, SLOT(serverFinished()));
        ++runningServers;
        if (isCallingOnly)
            server->settingsWasChanged(); // it knows them now, and listens to nobody
        else
            server->start();
    }
}

void CMessenger::close()
{
    if (isClosing)
        return;
    isClosing = true;
    watcher.watch({});
    for (const Channel &channel : channels)
        channel.server->stop();
}

const CMessenger::Channel *CMessenger::find(int kind) const
{
    const auto found = std::find_if(channels.begin(), channels.end(), [kind](const Channel &channel) {
        return channel.library->plugin()->type() == kind;
    });
    return found == channels.end() ? nullptr : &*found;
}

CChannelServer *CMessenger::server(int kind) const
{
    const Channel *channel = find(kind);
    return channel ? channel->server.get() : nullptr;
}

CChannelPlugin *CMessenger::plugin(int kind) const
{
    const Channel *channel = find(kind);
    return channel ? channel->library->plugin() : nullptr;
}

void CMessenger::serverFinished()
{
    if (!isClosing || --runningServers > 0)
        return;
    for (Channel &channel : channels) {
        monitor.removeConnection(channel.server->monitorHandle);
        channel.server.release()->deleteLater(); // we are in its signal
    }
    emit closed();
}

/// Something in the settings directory may have changed. Servers read their settings again if it is those.
void CMessenger::readSettings()
{
    if (isClosing)
        return;
    const QString path = Global::channelIpSettingsFilePath();
    if (!QFile::exists(path) && QFile::exists(path + QStringLiteral(".old")))
        return debounce.start(); // in the middle of a save
    // The directory tells of files that get a name, the file of contents overwritten in place. Anew, and
    // before reading, so that no later change is missed.
    watcher.watch({Global::settingsDir().absolutePath(), path});
    const ChannelSettingsFile file = ChannelSettingsFile::read();
    if (file.exists == channelSettings.exists && file.bytes == channelSettings.bytes &&
        file.error == channelSettings.error)
        return;
    channelSettings = file;
    if (!file.error.isNull())
        console.error(file.error);
    if (!file.damage.isNull())
        console.error(
            QStringLiteral("%1. IP-канал использует порт %2").arg(file.damage).arg(file.settings.port));
    for (const Channel &channel : channels) {
        if (channel.server)
            channel.server->settingsWasChanged();
    }
}
