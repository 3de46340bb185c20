// Door to the file-system and text helpers of the runtime: layout, secrecy, writing, permissions,
// saving, naming, texts, filters, environment. Holds no code.
#pragma once

#include "common/devicewrite.h"
#include "common/directorylayout.h"
#include "common/entrynaming.h"
#include "common/environment.h"
#include "common/filepermissions.h"
#include "common/namefilter.h"
#include "common/safesaving.h"
#include "common/secrecy.h"
#include "common/textformat.h"
