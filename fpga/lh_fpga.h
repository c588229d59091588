/* The FPGA access library: the one header the daemon includes. */
#ifndef LH_FPGA_H
#define LH_FPGA_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Module ids. */
typedef uint32_t lh_module_t;
enum {
    LH_MOD_GLOBAL = 0,
    LH_MOD_PCIE = 1,
    LH_MOD_DDR4 = 2,
    LH_MOD_CAUI = 3,
    LH_MOD_NIC = 4,
    LH_MOD_INGRESS_PKT_PARSER = 5,
    LH_MOD_INGRESS_PKT_CLASSIFIER = 6,
    LH_MOD_INGRESS_PKT_PROCESSOR = 7,
    LH_MOD_EGRESS_SCHEDULER = 8,
    LH_MOD_LHX_GLOBAL = 9,
    LH_MOD_LHX_PCIE = 10,
    LH_MOD_ETH = 11,
    LH_MOD_LHX_NIC = 12,
    LH_MOD_LHX_INGRESS_PKT_PARSER = 13,
    LH_MOD_LHX_EGRESS_SCHEDULER = 14,
    LH_MOD_END = 15,
};
#define LH_MOD_COUNT 15
#define LH_MAX_PIPES 2

/* One entry of a module list; a list ends at the entry whose module id is
 * LH_MOD_END. */
typedef struct {
    uint32_t module_id;
    uint32_t pipe;
} lh_module_entry;

/* Module names indexed by id, 15 entries and a null end. */
extern const char *const lh_module_names[LH_MOD_COUNT + 1];

typedef struct {
    uint32_t module_id;
    uint32_t pipe;
    const char *error_text;
} lh_fatal_error_t;

typedef void (*lh_fatal_error_cb)(lh_fatal_error_t report);

typedef enum {
    LH_QOS_PRIO_LOW = 0,
    LH_QOS_PRIO_MED = 1,
    LH_QOS_PRIO_HIGH = 2,
} lh_qos_priority_t;

typedef struct {
    uint32_t profile_id;
    uint32_t priority;
} lh_qos_profile_t;

/* Life cycle. */
int lh_fpga_init(const char *log_path);
void lh_register_fatal_error_cb(lh_fatal_error_cb cb);
void lh_fpga_shutdown(void);

/* Pipe state, QoS, loopback and statistics. */
int lh_set_traffic_pipe_state(uint32_t pipe, uint32_t state);
int lh_get_traffic_pipe_state(uint32_t pipe, uint8_t *state_out);
int lh_set_ingress_qos(uint32_t pipe, lh_qos_profile_t qos);
int lh_get_ingress_qos(uint32_t pipe, lh_qos_profile_t *qos);
int lh_set_loopback(uint32_t type, uint32_t pipe);
int lh_get_loopback(uint32_t *type_out, uint32_t pipe);
int lh_get_statistics(uint32_t module_id, uint32_t pipe, void *buffer,
                      uint64_t size);
int lh_clear_statistics(uint32_t module_id, uint32_t pipe);

/* Raw register access. */
int lh_read_register(uint32_t offset, uint32_t *value_out);
int lh_write_register(uint32_t offset, uint32_t value);

/* Registry queries. */
uint32_t lh_get_traffic_pipe_count(void);
uint32_t lh_get_max_queue_id(void);
int lh_get_module_list(const lh_module_entry **list_out);
int lh_get_module_state(lh_module_entry entry, uint8_t *state_out);

#ifdef __cplusplus
}
#endif

#endif
