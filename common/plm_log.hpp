/* Logging of the manager daemon: ident "Pellin Manager",
 * stamp "%Y %b %d %X PELLIN MGR", tag texts of plm_status_str. */
#ifndef PLM_LOG_H
#define PLM_LOG_H

#include "log_sink.hpp"

enum plm_status {
    PLM_STATUS_ERROR = 1,
    PLM_STATUS_NO_MEMORY = 2,
    PLM_STATUS_NULL_POINTER = 3,
    PLM_STATUS_MONITOR_ENQUEUE_FAILED = 4,
    PLM_STATUS_MONITOR_DETECTED_FAILURE = 5,
    PLM_STATUS_UNRECOVERABLE = 6,
    PLM_STATUS_INFO = 7,
    PLM_STATUS_ALERT = 8,
    PLM_STATUS_FATAL = 9,
};

#define PLM_LOG_IDENT "Pellin Manager"
#define PLM_LOG_STAMP_FORMAT "%Y %b %d %X PELLIN MGR"
#define PLM_LOG_PATH "/opt/orvel/platform/logs/pellin_mgr.log"

extern struct log_sink plm_log_file;

const char *plm_status_str(unsigned int code);

#define plm_log(severity, format, ...) \
    LOG_SINK_EMIT(&plm_log_file, severity, format, ##__VA_ARGS__)

#define PLM_TAG(code) plm_status_str(PLM_STATUS_##code)

#endif
