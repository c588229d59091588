/* A statistics record as named counters. The drivers define the counters
 * only by their register sources, so that is what names them: a 64-bit
 * counter "reg_0x<high>_0x<low>", a 32-bit one "reg_0x<low>", offsets from
 * the block base as the driver's own table gives them (lh_block_layout_of).
 * The NIC record adds a 32-byte entry per queue; only the
 * queues whose present flag is set are listed. */
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>

#include "lh_block.hpp"
#include "lh_block_ops.hpp"
#include "lhctl.hpp"
#include "nic.hpp"

/* Queue counter 0 is bits 31..16 of 0xC4; counters 1 and 2 are
 * 0xC4 bits 15..0 above 0xC8, read with the first and the second bank
 * selected. */
static const char *const queue_counter_names[NIC_QUEUE_COUNTERS] = {
    "reg_0xc4_hi16",
    "reg_0xc4_0xc8",
    "reg_0xc4_0xc8_bank2",
};

static bool has_queue_entries(uint32_t module_id)
{
    return module_id == LH_MOD_NIC || module_id == LH_MOD_LHX_NIC;
}

bool lhctl_module_has_stats(uint32_t module_id)
{
    struct lh_block_layout layout;

    return lh_block_layout_of(module_id, &layout) == 0 && layout.stats_size > 0;
}

static void name_counter(char *buf, const struct lh_counter_source *source)
{
    if (source->high == LH_NO_REGISTER)
        snprintf(buf, LHCTL_NAME_MAX, "reg_0x%" PRIx32, source->low);
    else
        snprintf(buf, LHCTL_NAME_MAX, "reg_0x%" PRIx32 "_0x%" PRIx32,
                 source->high, source->low);
}

/* The byte offset of a field of queue q's entry in the NIC record. */
static size_t queue_field(size_t q, size_t field)
{
    return offsetof(struct nic_stats, queues) +
           q * sizeof(struct nic_queue_stats) + field;
}

static size_t present_queues(const uint8_t *record)
{
    size_t count = 0;

    for (size_t q = 0; q < NIC_QUEUES; q++)
        count += record[queue_field(q, offsetof(struct nic_queue_stats, present))] != 0;
    return count;
}

static void add_queue(struct lhctl_counters *out, const uint8_t *record,
                      size_t q)
{
    size_t at = queue_field(q, offsetof(struct nic_queue_stats, counters));

    for (size_t i = 0; i < NIC_QUEUE_COUNTERS; i++) {
        struct lhctl_counter *c = &out->items[out->count++];

        snprintf(c->name, sizeof(c->name), "queue_%zu_%s", q,
                 queue_counter_names[i]);
        c->value = lhctl_get64(record + at + 8 * i);
    }
}

int lhctl_counters_decode(uint32_t module_id, const uint8_t *record,
                          size_t size, struct lhctl_counters *out)
{
    struct lh_block_layout layout;
    bool queues = has_queue_entries(module_id);
    size_t total;

    *out = lhctl_counters{};
    if (lh_block_layout_of(module_id, &layout) != 0 || layout.stats_size == 0 ||
        size != layout.stats_size)
        return -EINVAL;
    total = layout.counter_count;
    if (queues)
        total += present_queues(record) * NIC_QUEUE_COUNTERS;
    out->items = static_cast<lhctl_counter*>(calloc(total > 0 ? total : 1, sizeof(*out->items)));
    if (out->items == NULL)
        return -ENOMEM;
    for (size_t i = 0; i < layout.counter_count; i++, out->count++) {
        name_counter(out->items[i].name, &layout.counters[i]);
        out->items[i].value = lhctl_get64(record + 8 * i);
    }
    for (size_t q = 0; queues && q < NIC_QUEUES; q++)
        if (record[queue_field(q, offsetof(struct nic_queue_stats, present))] != 0)
            add_queue(out, record, q);
    return 0;
}

void lhctl_counters_free(struct lhctl_counters *counters)
{
    free(counters->items);
    *counters = lhctl_counters{};
}
