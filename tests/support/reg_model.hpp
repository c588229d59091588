/* A register window in memory behind the register-access seam (lh_regs.h,
 * test build): plain words by default, hooks where a register has the side
 * effects of real hardware. */
#ifndef REG_MODEL_H
#define REG_MODEL_H

#include <stddef.h>
#include <stdint.h>

struct reg_model;

/* Returns what a read of `offset` yields; `stored` is the word in memory. */
typedef uint32_t (*reg_model_read_hook)(struct reg_model *model,
                                        uint32_t offset, uint32_t stored);
/* Handles a write of `value` to `offset` (reg_model_store keeps it). */
typedef void (*reg_model_write_hook)(struct reg_model *model, uint32_t offset,
                                     uint32_t value);

struct reg_model {
    uint32_t *words;
    size_t size;                 /* bytes */
    reg_model_read_hook on_read; /* null: the stored word */
    reg_model_write_hook on_write; /* null: stored as written */
    void *user;
    unsigned long reads;
    unsigned long writes;
};

/* Makes a zeroed window of `size` bytes and lets the seam route accesses
 * inside it to the model. Returns the window base. */
void *reg_model_attach(struct reg_model *model, size_t size);
void reg_model_detach(struct reg_model *model);

uint32_t reg_model_peek(const struct reg_model *model, uint32_t offset);
void reg_model_store(struct reg_model *model, uint32_t offset, uint32_t value);
void reg_model_fill(struct reg_model *model, uint32_t value);

#endif
