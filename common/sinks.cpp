/* The log stream of each component. */
#include "lh_log.hpp"
#include "plm_log.hpp"

constinit log_sink lh_log_file =
    LOG_SINK_INITIALIZER(LH_LOG_IDENT, LH_LOG_STAMP_FORMAT);

constinit log_sink plm_log_file =
    LOG_SINK_INITIALIZER(PLM_LOG_IDENT, PLM_LOG_STAMP_FORMAT);
