/* Placeholder until the driver lands. */
#include "lh_drivers.h"
