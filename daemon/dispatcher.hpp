/* The request dispatcher: one accepted request, one library call, one
 * reply or error reply. */
#ifndef PLM_DISPATCHER_H
#define PLM_DISPATCHER_H

#include "ipc_msg.hpp"

void plm_process_ipc_msg(plm_ipc_msg *msg);

/* True when the module list holds (module_id, pipe). */
bool plm_module_pipe_valid(uint32_t module_id, uint32_t pipe);

#endif
