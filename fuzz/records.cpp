// Any bytes as the two settings records that come in files and from hosts.
#include "transportIp/ipsettings.h"

#include <QCoreApplication>

#include <cstdlib>

namespace {

/// What has been read without a complaint is the same after writing and reading it once more.
template <typename Record>
void rewrite(const QByteArray &bytes)
{
    Record record;
    if (!record.fromByteArray(bytes).isEmpty())
        return;
    Record again;
    const QByteArray written = record.toByteArray();
    if (!again.fromByteArray(written).isEmpty() || again.toByteArray() != written)
        std::abort();
}

} // namespace

/// The records trace, so there has to be an installation.
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    new QCoreApplication(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), int(size));
    rewrite<ChannelIpSettings>(bytes);
    rewrite<AbonentIpSettings>(bytes);
    return 0;
}
