/* The IPC message format of the daemon: the record, the operation ids, the
 * error codes and their texts. */
#ifndef PLM_IPC_MSG_H
#define PLM_IPC_MSG_H

#include <stdint.h>

#include "plat_ipc.h"

#define PLM_IPC_APP_ID 219

/* The application id in the upper 16 bits, a number in the lower. */
#define PLM_IPC_OP(number) (((uint32_t)PLM_IPC_APP_ID << 16) | (number))

enum plm_ipc_op {
    PLM_IPC_OP_ERROR = PLM_IPC_OP(0x0001),
    PLM_IPC_OP_READ_REG = PLM_IPC_OP(0x0002),
    PLM_IPC_OP_WRITE_REG = PLM_IPC_OP(0x0003),
    PLM_IPC_OP_SET_LOOPBACK = PLM_IPC_OP(0x0004),
    PLM_IPC_OP_GET_LOOPBACK = PLM_IPC_OP(0x0005),
    PLM_IPC_OP_GET_STATS = PLM_IPC_OP(0x0006),
    PLM_IPC_OP_CLEAR_STATS = PLM_IPC_OP(0x0007),
    PLM_IPC_OP_GET_MODULE_LIST = PLM_IPC_OP(0x0008),
    PLM_IPC_OP_SET_PIPE = PLM_IPC_OP(0x0009),
    PLM_IPC_OP_GET_PIPE = PLM_IPC_OP(0x000a),
    PLM_IPC_OP_SET_INGRESS_QOS = PLM_IPC_OP(0x000b),
    PLM_IPC_OP_GET_INGRESS_QOS = PLM_IPC_OP(0x000c),
};

enum plm_ipc_msg_type {
    PLM_IPC_MSG_REQUEST = 1,
    PLM_IPC_MSG_REPLY = 2,
};

enum plm_ipc_err {
    PLM_IPC_ERR_INVALID_LENGTH = 1,
    PLM_IPC_ERR_NULL_PAYLOAD = 2,
    PLM_IPC_ERR_READ_FAILED = 3,
    PLM_IPC_ERR_WRITE_FAILED = 4,
    PLM_IPC_ERR_LOOPBACK_FAILED = 5,
    PLM_IPC_ERR_GET_STATS_FAILED = 6,
    PLM_IPC_ERR_CLEAR_STATS_FAILED = 7,
    PLM_IPC_ERR_GET_MODULE_LIST_FAILED = 8,
    PLM_IPC_ERR_SET_PIPE_FAILED = 9,
    PLM_IPC_ERR_GET_PIPE_FAILED = 10,
    PLM_IPC_ERR_SET_INGR_QOS_FAILED = 11,
    PLM_IPC_ERR_GET_INGR_QOS_FAILED = 12,
};

/* The record ipc_recv fills and ipc_send takes: the platform IPC library's
 * own, 32 bytes in host order, its layout asserted where it is declared. */
typedef ipc_msg_t plm_ipc_msg;

/* The text of an error code for clients; "--" for any other code. */
const char *plm_ipc_error_str(uint32_t code);

#endif
