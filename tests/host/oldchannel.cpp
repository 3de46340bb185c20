// A channel library of an older contract. Asked for more than its version, it ends the program.
#include <cstdlib>

extern "C" {

int apiVersion()
{
    return 15;
}

void initDebug(void *)
{
    std::abort();
}

void *instance()
{
    std::abort();
}

void deleteInstance(void *)
{
    std::abort();
}
}
