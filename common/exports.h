// What a module shows to others. Symbols are hidden unless they carry this mark; the plug-in's
// list of exports narrows it further.
#pragma once

#define RUNTIME_EXPORT __attribute__((visibility("default")))
