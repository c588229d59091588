/* Logging of the FPGA access library: ident "larks-hollow-fpga",
 * stamp "%Y %b %d %X LH FPGA", tag texts of lh_status_str. */
#ifndef LH_LOG_H
#define LH_LOG_H

#include "log_sink.hpp"

enum lh_status {
    LH_STATUS_ERROR = 1,
    LH_STATUS_NO_MEMORY = 2,
    LH_STATUS_NULL_POINTER = 3,
    LH_STATUS_INFO = 4,
    LH_STATUS_ALERT = 5,
    LH_STATUS_PCI = 6,
    LH_STATUS_FATAL = 7,
};

#define LH_LOG_IDENT "larks-hollow-fpga"
#define LH_LOG_STAMP_FORMAT "%Y %b %d %X LH FPGA"
#define LH_LOG_DEFAULT_PATH "/opt/orvel/platform/logs/larks_hollow_fpga.log"

extern struct log_sink lh_log_file;

const char *lh_status_str(unsigned int code);

#define lh_log(severity, format, ...) \
    LOG_SINK_EMIT(&lh_log_file, severity, format, ##__VA_ARGS__)

/* The tag text of a library status code, looked up where it is used. */
#define LH_TAG(code) lh_status_str(LH_STATUS_##code)

#endif
