/* Module ids and names, device descriptors, module state and the registry
 * queries of the public API. */
#include <stddef.h>

#include <algorithm>

#include "lh_check.hpp"
#include "lh_layout.hpp"

const char *const lh_module_names[LH_MOD_COUNT + 1] = {
    "global",
    "pcie",
    "ddr4",
    "caui",
    "nic",
    "ingress-pkt-parser",
    "ingress-pkt-classifier",
    "ingress-pkt-processor",
    "egress-scheduler",
    "lhx-global",
    "lhx-pcie",
    "eth",
    "lhx-nic",
    "lhx-ingress-pkt-parser",
    "lhx-egress-scheduler",
    NULL,
};

std::span<const char *const, LH_MOD_COUNT> lh::module_names()
{
    return std::span(lh_module_names).first<LH_MOD_COUNT>();
}

std::optional<uint32_t> lh::module_by_name(std::string_view name)
{
    auto names = module_names();
    auto found = std::ranges::find(names, name);

    if (found == names.end())
        return std::nullopt;
    return static_cast<uint32_t>(found - names.begin());
}

static const lh_module_entry lhx_modules[] = {
    { LH_MOD_LHX_GLOBAL, 0 }, { LH_MOD_LHX_PCIE, 0 }, { LH_MOD_ETH, 0 },
    { LH_MOD_LHX_NIC, 0 }, { LH_MOD_LHX_INGRESS_PKT_PARSER, 0 },
    { LH_MOD_LHX_EGRESS_SCHEDULER, 0 }, { LH_MOD_END, 0 },
};

/* Global and PCIe exist once; every other block once per pipe, pipe 0
 * first. */
static const lh_module_entry base_two_pipe_modules[] = {
    { LH_MOD_GLOBAL, 0 }, { LH_MOD_PCIE, 0 },
    { LH_MOD_DDR4, 0 }, { LH_MOD_DDR4, 1 },
    { LH_MOD_CAUI, 0 }, { LH_MOD_CAUI, 1 },
    { LH_MOD_NIC, 0 }, { LH_MOD_NIC, 1 },
    { LH_MOD_INGRESS_PKT_PARSER, 0 }, { LH_MOD_INGRESS_PKT_PARSER, 1 },
    { LH_MOD_INGRESS_PKT_CLASSIFIER, 0 },
    { LH_MOD_INGRESS_PKT_CLASSIFIER, 1 },
    { LH_MOD_INGRESS_PKT_PROCESSOR, 0 }, { LH_MOD_INGRESS_PKT_PROCESSOR, 1 },
    { LH_MOD_EGRESS_SCHEDULER, 0 }, { LH_MOD_EGRESS_SCHEDULER, 1 },
    { LH_MOD_END, 0 },
};

static const lh_module_entry base_one_pipe_modules[] = {
    { LH_MOD_GLOBAL, 0 }, { LH_MOD_PCIE, 0 }, { LH_MOD_DDR4, 0 },
    { LH_MOD_CAUI, 0 }, { LH_MOD_NIC, 0 }, { LH_MOD_INGRESS_PKT_PARSER, 0 },
    { LH_MOD_INGRESS_PKT_CLASSIFIER, 0 }, { LH_MOD_INGRESS_PKT_PROCESSOR, 0 },
    { LH_MOD_EGRESS_SCHEDULER, 0 }, { LH_MOD_END, 0 },
};

namespace {

constexpr uint32_t vendor_id = 0x1c7a;
constexpr uint32_t qos_profile_count = 0x80;

constexpr lh_device_desc describe(uint32_t type, uint32_t device_id,
                                  uint32_t subdevice_id, uint32_t bar,
                                  uint64_t window_size, uint32_t pipes,
                                  uint32_t max_queue_id,
                                  const lh_module_entry *modules)
{
    lh_device_desc desc;

    desc.device_type = type;
    desc.name = "Control Status";
    desc.match = {vendor_id, device_id, PCI_MATCH_ANY, subdevice_id, 0, 0, 0};
    desc.bar = bar;
    desc.window_size = window_size;
    desc.traffic_pipe_count = pipes;
    desc.max_queue_id = max_queue_id;
    desc.qos_profile_count = qos_profile_count;
    desc.module_list = modules;
    return desc;
}

} // namespace

constinit lh_device_desc lh_desc_lhx =
    describe(LH_DEV_TYPE_LHX, 0x01D9, PCI_MATCH_ANY, 2, 0x19800, 1, 0x80,
             lhx_modules);
constinit lh_device_desc lh_desc_base_two_pipes =
    describe(LH_DEV_TYPE_BASE, 0x01D7, 0x01D7, 0, 0x2A100, 2, 0xFF,
             base_two_pipe_modules);
constinit lh_device_desc lh_desc_base_one_pipe =
    describe(LH_DEV_TYPE_BASE, 0x01D7, 0x01D7, 0, 0x2A100, 1, 0xFF,
             base_one_pipe_modules);

std::atomic<uint8_t> lh_initialized;
std::atomic<uint8_t> lh_module_state[LH_MOD_COUNT][LH_MAX_PIPES];

uint32_t lh_get_traffic_pipe_count(void)
{
    lh_device_desc *desc = nullptr;

    if (!(lh::initialized("get traffic pipe count failed") &&
          lh::csr_device_found(desc)))
        return 0;
    return desc->traffic_pipe_count;
}

uint32_t lh_get_max_queue_id(void)
{
    lh_device_desc *desc = nullptr;

    if (!(lh::initialized("get max queue id supported failed") &&
          lh::csr_device_found(desc)))
        return 0;
    return desc->max_queue_id;
}

int lh_get_module_list(const lh_module_entry **list_out)
{
    lh_device_desc *desc = nullptr;

    if (!(lh::initialized("get module list") &&
          lh::present(list_out, "get module list") &&
          lh::csr_device_found(desc)))
        return -1;
    *list_out = desc->module_list;
    return 0;
}

static bool module_exists(lh_module_entry entry)
{
    if (entry.module_id < LH_MOD_COUNT && entry.pipe < LH_MAX_PIPES)
        return true;
    lh_log(LOG_ERR, "%s - get module state - invalid module/pipe (%d/%d)",
           LH_TAG(ERROR), entry.module_id, entry.pipe);
    return false;
}

int lh_get_module_state(lh_module_entry entry, uint8_t *state_out)
{
    if (!(lh::initialized("get module state") &&
          lh::present(state_out, "get module state") && module_exists(entry)))
        return -1;
    *state_out = lh_module_state[entry.module_id][entry.pipe].load(
        std::memory_order_relaxed);
    return 0;
}
