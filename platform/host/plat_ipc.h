/* Placeholder until the transport lands. */
#ifndef PLAT_IPC_H
#define PLAT_IPC_H
#endif
