// Whether this process holds an address that a second one could not have at the same time.
#pragma once

class QString;

/// @return a listening or bound socket whose port the system has not chosen, a named socket outside of
/// this installation, or an opened terminal line, as a text; null when there is none
QString fixedAddress();
