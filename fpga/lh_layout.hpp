/* What the library's tables look like to a tool (the simulated board, the
 * client): module names and where each block sits, its fatal-error rows and
 * its statistics counters. Every span views the driver's own constexpr
 * table, so the tools follow the drivers. */
#ifndef LH_LAYOUT_HPP
#define LH_LAYOUT_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "lh_block.hpp"
#include "lh_fpga.h"

namespace lh {

struct BlockLayout {
    const char *name; /* display name, "CAUI" */
    uint32_t device_type; /* the image that carries the block */
    bool per_pipe;
    std::array<uint32_t, LH_MAX_PIPES> offsets; /* from the window base */
    std::span<const lh_error_bit> errors;
    std::span<const lh_counter_source> counters;
    size_t stats_size; /* bytes of the statistics record, 0 for none */
    const lh_port_regs *port; /* a port's control and status, null for none */
};

/* The register dump file, as the poll thread writes it and lhctl reads
 * it: the headers of its two parts and the filler word whose runs fold. */
inline constexpr char dump_status_header[] =
    "----------- Module Status -----------";
inline constexpr char dump_register_header[] =
    "----------- Register Dump -----------";
inline constexpr uint32_t dump_filler = 0xDEADBEEFu;

/* The layout of a module id, none for an id without a driver. */
std::optional<BlockLayout> block_layout(uint32_t module_id);

/* The names of the module ids, "global" first. */
std::span<const char *const, LH_MOD_COUNT> module_names();

/* The module id of a name, none for a name no module has. */
std::optional<uint32_t> module_by_name(std::string_view name);

} // namespace lh

#endif
