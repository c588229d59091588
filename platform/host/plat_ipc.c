/* Placeholder until the transport lands. */
#include "plat_ipc.h"
