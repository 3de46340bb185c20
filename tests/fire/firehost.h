// The host under fire: a process around the built plug-in, driven by commands on its standard input.
#pragma once

/// Runs until the input ends. Every command is answered with one line:
///
///   start; settings; keep ID; call NAME RECORD; disconnect NAME ID; log TEXT
///   stop N                          N calls of stop(); the answer: ms, and how often finished() came
///   one is not script NAME                     how protocols that are made from now on behave limit
///   descriptors N             that many more than now; limit memory KIB; limit none stats name=number ...
///
/// @param plugin the library's file. @return the process's exit code
int runFireHost(int &argc, char **argv, const char *plugin);
