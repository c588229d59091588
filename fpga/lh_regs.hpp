/* The register-access seam: the only code that touches the hardware window.
 * Every register of the library and its drivers is a 32-bit word at a byte
 * offset from a base inside the mapped window, read and written as one
 * access. The API threads and the poll thread share control registers
 * without a lock (the hardware keeps it so), so an access is a relaxed
 * atomic: the same single instruction, without a data race in the language's
 * sense. A test build (LH_REG_MODEL) routes the accesses through a register
 * model that can give registers the side effects real hardware has. */
#ifndef LH_REGS_H
#define LH_REGS_H

#include <cstdint>

#ifdef LH_REG_MODEL
uint32_t lh_reg_model_read(volatile void *base, uint32_t offset);
void lh_reg_model_write(volatile void *base, uint32_t offset, uint32_t value);
#endif

namespace lh {

/* A register: its byte offset from a block's base. */
struct Reg {
    uint32_t offset;
};

/* One bit of a register. */
struct Bit {
    Reg reg;
    uint32_t pos;
};

/* The `width` bits of a word from bit `lsb` up. */
struct Bits {
    uint32_t lsb;
    uint32_t width;

    constexpr uint32_t mask() const
    {
        return width >= 32 ? 0xFFFFFFFFu : (1u << width) - 1u;
    }
    constexpr uint32_t of(uint32_t word) const
    {
        return (word >> lsb) & mask();
    }
    /* `word` with these bits replaced by `value`. */
    constexpr uint32_t in(uint32_t word, uint32_t value) const
    {
        return (word & ~(mask() << lsb)) | ((value << lsb) & (mask() << lsb));
    }
};

/* A field of a register. */
struct Field {
    Reg reg;
    Bits bits;
};

/* The two routings are two types, so that code built for one never links
 * against the other. */
#ifdef LH_REG_MODEL
inline namespace model {
#else
inline namespace mapped {
#endif

/* A block's registers, from its base inside the mapped window. A
 * read-modify-write changes one bit or field per write, as the hardware
 * expects. */
class Window {
public:
    constexpr Window() = default;
    Window(volatile void *base) : base_(static_cast<volatile uint8_t *>(base))
    {
    }

    explicit operator bool() const { return base_ != nullptr; }
    volatile void *base() const { return base_; }
    Window at(uint32_t offset) const { return Window(base_ + offset); }

    uint32_t read(Reg reg) const
    {
#ifdef LH_REG_MODEL
        return lh_reg_model_read(base_, reg.offset);
#else
        return __atomic_load_n(word(reg), __ATOMIC_RELAXED);
#endif
    }
    void write(Reg reg, uint32_t value) const
    {
#ifdef LH_REG_MODEL
        lh_reg_model_write(base_, reg.offset, value);
#else
        __atomic_store_n(word(reg), value, __ATOMIC_RELAXED);
#endif
    }

    bool test(Bit bit) const { return (read(bit.reg) >> bit.pos) & 1u; }
    void set(Bit bit) const { write(bit.reg, read(bit.reg) | 1u << bit.pos); }
    void clear(Bit bit) const
    {
        write(bit.reg, read(bit.reg) & ~(1u << bit.pos));
    }

    uint32_t read(Field field) const { return field.bits.of(read(field.reg)); }
    void write(Field field, uint32_t value) const
    {
        write(field.reg, field.bits.in(read(field.reg), value));
    }

private:
    volatile uint32_t *word(Reg reg) const
    {
        return reinterpret_cast<volatile uint32_t *>(base_ + reg.offset);
    }

    volatile uint8_t *base_ = nullptr;
};

} // namespace model or mapped
} // namespace lh

#endif
