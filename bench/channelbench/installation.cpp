#include "bench/channelbench/installation.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr char homeVariable[] = "CHANNELBENCH_INSTALLATION";
constexpr char pluginVariable[] = "CHANNELBENCH_PLUGIN";
constexpr char prefix[] = "channelbench.";

std::string variable(const char *name)
{
    const char *value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

void removeLeftovers(const fs::path &parent)
{
    std::error_code ignored;
    for (const fs::directory_entry &entry : fs::directory_iterator(parent, ignored)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind(prefix, 0) != 0)
            continue;
        const int pid = std::atoi(name.c_str() + sizeof prefix - 1);
        if (pid > 0 && kill(pid, 0) < 0 && errno == ESRCH)
            fs::remove_all(entry.path(), ignored);
    }
}

} // namespace

bool Installation::enter(char **arguments, const std::string &parent)
try {
    if (!directory().empty())
        return true;
    const fs::path program = fs::read_symlink("/proc/self/exe");
    const fs::path built = program.parent_path();
    const fs::path place = parent.empty() ? built.parent_path() : fs::absolute(parent);
    removeLeftovers(place);

    const fs::path home = place / (prefix + std::to_string(getpid()));
    fs::create_directories(home / "bin");
    const fs::path copy = home / "bin" / program.filename();
    std::error_code linkFailed;
    fs::create_hard_link(program, copy, linkFailed);
    if (linkFailed)
        fs::copy_file(program, copy);

    setenv(homeVariable, home.c_str(), 1);
    setenv(pluginVariable, (built / "channelPlugins" / "libtransportIp.so").c_str(), 1);
    execv(copy.c_str(), arguments);
    throw std::system_error(errno, std::generic_category(), copy.string());
} catch (const std::exception &error) {
    std::fprintf(stderr, "channelbench: no installation: %s\n", error.what());
    return false;
}

std::string Installation::directory()
{
    return variable(homeVariable);
}

std::string Installation::pluginPath()
{
    return variable(pluginVariable);
}

void Installation::leave()
{
    std::error_code ignored;
    fs::remove_all(directory(), ignored);
}
