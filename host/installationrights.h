// Whether this process may use its installation at all: asked once, at the start, so that people get one
// answer instead of one from every room that comes upon it.
#pragma once

#include <QString>

/// Looks and changes nothing.
/// @return null when there is a level whose data the process may write, else who lacks what, and what to do
QString missingRights();
