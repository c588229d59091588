#include "ipc_msg.hpp"

#include <iterator>

/* Indexed by error code; codes begin at 1. */
constexpr const char *error_texts[] = {
    "--",
    "INVALID LENGTH",
    "NULL PAYLOAD",
    "READ FAILED",
    "WRITE FAILED",
    "LOOPBACK FAILED",
    "GET STATS FAILED",
    "CLEAR STATS FAILED",
    "GET MODULE LIST FAILED",
    "SET PIPE FAILED",
    "GET PIPE FAILED",
    "SET INGR QOS FAILED",
    "GET INGR QOS FAILED",
};

const char *plm_ipc_error_str(uint32_t code)
{
    return code < std::size(error_texts) ? error_texts[code] : "--";
}
