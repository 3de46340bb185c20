// Door to the log: everything that a host or another kind of channel needs to write records.
#pragma once

#include "common/debugdata.h"
#include "common/emergencylog.h"
#include "common/functiontrace.h"
#include "common/logwriter.h"
