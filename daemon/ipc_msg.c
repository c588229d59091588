#include "ipc_msg.h"

static const char *const error_texts[] = {
    [PLM_IPC_ERR_INVALID_LENGTH] = "INVALID LENGTH",
    [PLM_IPC_ERR_NULL_PAYLOAD] = "NULL PAYLOAD",
    [PLM_IPC_ERR_READ_FAILED] = "READ FAILED",
    [PLM_IPC_ERR_WRITE_FAILED] = "WRITE FAILED",
    [PLM_IPC_ERR_LOOPBACK_FAILED] = "LOOPBACK FAILED",
    [PLM_IPC_ERR_GET_STATS_FAILED] = "GET STATS FAILED",
    [PLM_IPC_ERR_CLEAR_STATS_FAILED] = "CLEAR STATS FAILED",
    [PLM_IPC_ERR_GET_MODULE_LIST_FAILED] = "GET MODULE LIST FAILED",
    [PLM_IPC_ERR_SET_PIPE_FAILED] = "SET PIPE FAILED",
    [PLM_IPC_ERR_GET_PIPE_FAILED] = "GET PIPE FAILED",
    [PLM_IPC_ERR_SET_INGR_QOS_FAILED] = "SET INGR QOS FAILED",
    [PLM_IPC_ERR_GET_INGR_QOS_FAILED] = "GET INGR QOS FAILED",
};

const char *plm_ipc_error_str(uint32_t code)
{
    if (code >= sizeof(error_texts) / sizeof(error_texts[0]) ||
        error_texts[code] == NULL)
        return "--";
    return error_texts[code];
}
