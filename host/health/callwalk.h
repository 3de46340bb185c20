// A call to an abonent, step by step, until it is clear where it stops.
#pragma once

#include "host/health/finding.h"

#include <functional>

struct CallTarget;

namespace CallWalk {

enum End
{
    Answered,
    NotCalled,    // the name is not known, or has no address
    OwnTrouble,   // this installation cannot call
    Forbidden,    // its settings do not allow calls that only ask
    Unreachable,  // nobody there
    SomebodyElse, // something answers, but not this abonent, or it turns us away
};

/// Told of each step as soon as it is done. @param step a stable English word; @param title for people
using Report = std::function<void(const char *step, const char *title, const Finding &finding)>;

/// Goes from the name to a frame there and back. An abonent who answers for the first time becomes a contact,
/// as with any call. Runs an event loop, for a minute at the most.
/// @param target an empty address: that of the contact
End walk(CallTarget target, const Report &report);

} // namespace CallWalk
