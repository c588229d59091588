/* Prints the library's module names, one a line: the bash completion of
 * lhctl is made from them at build time. */
#include <cstdio>

#include "lh_layout.hpp"

int main()
{
    for (const char *name : lh::module_names())
        if (name != nullptr && std::puts(name) == EOF)
            return 1;
    return std::fflush(stdout) == 0 ? 0 : 1;
}
