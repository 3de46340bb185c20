// What the process has open.
#pragma once

struct OwnDescriptors
{
    int open = 0;
    int limit = 0;
    bool isListening = false; // a socket waits for connections

    /// Looks through all of them, a few microseconds each. [any thread]
    static OwnDescriptors look();
};
