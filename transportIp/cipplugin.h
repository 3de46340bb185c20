// The IP kind of channel as an object.
#pragma once

#include "interfaces/cchannelplugin.h"

/// Makes IP channel servers and steps the host's delay between calls. [any thread]
///
/// The delay's unit is the host's. It walks a ladder: 10, 20, 30, 60, 90, 120, 150, 300, 450, 600,
/// 900, ... up to `Details/transportIpMaxReconnectTimeout`, which is read once per process.
class CIpPlugin : public CChannelPlugin
{
public:
    int type() const override;
    QString name() const override;
    CChannelServer *create() const override;
    void incCallTimeout(int *timeout) const override;
    void decCallTimeout(int *timeout) const override;
};
