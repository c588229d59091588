/* Bit fields of a 32-bit register value. */
#ifndef LH_FIELD_H
#define LH_FIELD_H

#include <stdint.h>

static inline uint32_t lh_field_mask(unsigned int width)
{
    return width >= 32 ? 0xFFFFFFFFu : (1u << width) - 1u;
}

/* The `width` bits of `value` starting at bit `lsb`. */
static inline uint32_t lh_field_get(uint32_t value, unsigned int lsb,
                                    unsigned int width)
{
    return (value >> lsb) & lh_field_mask(width);
}

/* `word` with the field at `lsb` replaced by `field`. */
static inline uint32_t lh_field_set(uint32_t word, unsigned int lsb,
                                    unsigned int width, uint32_t field)
{
    uint32_t mask = lh_field_mask(width) << lsb;

    return (word & ~mask) | ((field << lsb) & mask);
}

#endif
