/* Helpers shared by the simboard sources, not part of the interface. */
#ifndef SIMBOARD_INTERNAL_H
#define SIMBOARD_INTERNAL_H

#include <sys/types.h>

/* mkdir -p; directories that already exist are fine. */
int sim_mkdir_p(const char *path, mode_t mode);

#endif
