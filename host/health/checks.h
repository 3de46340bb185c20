// Looks at an installation and says what is not as it should be: a table of small checks.
//
// They change nothing, but for what finding the secrecy level makes (data directories that may be made). They
// read what others have open to be read and say so where their rights end.
#pragma once

#include "host/health/finding.h"
#include "host/health/processes.h"
#include "host/settings/channelsettingsfile.h"

/// What several checks go by.
struct HealthContext
{
    static HealthContext look();

    int level = 0;
    bool isLevelFound = false;
    ChannelSettingsFile channel;
    Processes::Process resident; // the `listen` of this level; its number is 0 when there is none
};

struct HealthCheck
{
    const char *name;  // for scripts
    const char *title; // for people
    Findings (*run)(const HealthContext &around);
};

/// All of them, in the order in which people would ask.
const std::vector<HealthCheck> &healthChecks();

namespace Checks {

Findings level(const HealthContext &around);
Findings directories(const HealthContext &around);
Findings openness(const HealthContext &around);
Findings settings(const HealthContext &around);
Findings identity(const HealthContext &around);
Findings contacts(const HealthContext &around);
Findings plugins(const HealthContext &around);
Findings port(const HealthContext &around);
Findings resident(const HealthContext &around);
Findings descriptors(const HealthContext &around);
Findings clock(const HealthContext &around);
Findings locale(const HealthContext &around);
Findings disk(const HealthContext &around);
Findings growth(const HealthContext &around);
Findings outbox(const HealthContext &around);

} // namespace Checks
