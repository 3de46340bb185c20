// `peers KIND VARIANT ARGUMENT...` plays one peer of the measured product; without arguments it lists the
// roles.
#include "bench/peers/role.h"

#include <cstdio>
#include <exception>

namespace {

std::vector<const Role *> &roles()
{
    static std::vector<const Role *> list;
    return list;
}

size_t countOf(const std::string &arguments)
{
    size_t count = arguments.empty() ? 0 : 1;
    for (const char character : arguments)
        count += character == ' ' ? 1 : 0;
    return count;
}

} // namespace

Role::Role(const char *roleName, const char *argumentNames, Run function)
    : name(roleName), arguments(argumentNames), run(function)
{
    roles().push_back(this);
}

const std::vector<const Role *> &Role::all()
{
    return roles();
}

int main(int argc, char **argv)
try {
    const Arguments given(argv + 1, argv + argc);
    for (const Role *role : Role::all()) {
        if (given.size() < 2 || role->name != given[0] + ' ' + given[1])
            continue;
        if (given.size() - 2 == countOf(role->arguments))
            return role->run(Arguments(given.begin() + 2, given.end()));
    }
    for (const Role *role : Role::all())
        std::printf("%s\t%s\n", role->name.c_str(), role->arguments.c_str());
    return given.empty() ? 0 : 2;
} catch (const std::exception &error) {
    std::fprintf(stderr, "peers: %s\n", error.what());
    return 1;
}
