/* The register-access seam: the only code that touches the hardware window.
 * Every register of the library and its drivers is a 32-bit word at a byte
 * offset from a base inside the mapped window, read and written as one
 * access. The API threads and the poll thread share control registers
 * without a lock (the hardware keeps it so), so an access is a relaxed
 * atomic: the same single instruction, without a data race in the language's
 * sense. A test build (LH_REG_MODEL)
 * routes the accesses through a register model that can give registers the
 * side effects real hardware has. */
#ifndef LH_REGS_H
#define LH_REGS_H

#include <stdint.h>

#include "lh_field.hpp"

#ifdef LH_REG_MODEL
uint32_t lh_reg_model_read(volatile void *base, uint32_t offset);
void lh_reg_model_write(volatile void *base, uint32_t offset, uint32_t value);
#endif

static inline uint32_t lh_reg_read(volatile void *base, uint32_t offset)
{
#ifdef LH_REG_MODEL
    return lh_reg_model_read(base, offset);
#else
    return __atomic_load_n((volatile uint32_t *)((volatile uint8_t *)base +
                                                 offset),
                           __ATOMIC_RELAXED);
#endif
}

static inline void lh_reg_write(volatile void *base, uint32_t offset,
                                uint32_t value)
{
#ifdef LH_REG_MODEL
    lh_reg_model_write(base, offset, value);
#else
    __atomic_store_n((volatile uint32_t *)((volatile uint8_t *)base + offset),
                     value, __ATOMIC_RELAXED);
#endif
}

/* Read-modify-writes change one bit per write, as the hardware expects. */
static inline void lh_reg_set_bit(volatile void *base, uint32_t offset,
                                  unsigned int bit)
{
    lh_reg_write(base, offset, lh_reg_read(base, offset) | (1u << bit));
}

static inline void lh_reg_clear_bit(volatile void *base, uint32_t offset,
                                    unsigned int bit)
{
    lh_reg_write(base, offset, lh_reg_read(base, offset) & ~(1u << bit));
}

static inline int lh_reg_test_bit(volatile void *base, uint32_t offset,
                                  unsigned int bit)
{
    return (lh_reg_read(base, offset) >> bit) & 1u;
}

/* A field of `width` bits at `lsb`: one read-modify-write, others kept. */
static inline void lh_reg_write_field(volatile void *base, uint32_t offset,
                                      unsigned int lsb, unsigned int width,
                                      uint32_t value)
{
    lh_reg_write(base, offset,
                 lh_field_set(lh_reg_read(base, offset), lsb, width, value));
}

static inline uint32_t lh_reg_read_field(volatile void *base, uint32_t offset,
                                         unsigned int lsb, unsigned int width)
{
    return lh_field_get(lh_reg_read(base, offset), lsb, width);
}

#endif
