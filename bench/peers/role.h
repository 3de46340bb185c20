// What the program `peers` can do: every source file of this folder registers its own roles, so a
// peer whose library is not installed is simply missing from the list.
#pragma once

#include <string>
#include <vector>

using Arguments = std::vector<std::string>;

/// One role, such as "sink asio". Registers itself for the life of the program.
class Role
{
public:
    using Run = int (*)(const Arguments &arguments);

    /// @param arguments the names of the arguments that follow, for the list of roles
    Role(const char *name, const char *arguments, Run run);
    Role(const Role &) = delete;
    Role &operator=(const Role &) = delete;

    static const std::vector<const Role *> &all();

    const std::string name;
    const std::string arguments;
    const Run run;
};
