/* The register seam: a window over a register model, offsets, bits and
 * fields as their own types, one read and one write per changed bit. */
#include <stdint.h>

#include <gtest/gtest.h>

#include "lh_regs.hpp"
#include "reg_model.hpp"

namespace {

/* What the compiler refuses: an offset, a value or a register where a
 * bit is meant, and the other way round. */
template <class W, class Arg>
constexpr bool reads = requires(W w, Arg arg) { w.read(arg); };
template <class W, class Arg>
constexpr bool tests = requires(W w, Arg arg) { w.test(arg); };
template <class W, class Arg>
constexpr bool sets = requires(W w, Arg arg) { w.set(arg); };
template <class W, class Arg>
constexpr bool writes = requires(W w, Arg arg) { w.write(arg, 1u); };

class RegsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        window = lh::Window(reg_model_attach(&model, 0x100));
    }
    void TearDown() override { reg_model_detach(&model); }

    struct reg_model model = {};
    lh::Window window;
};

} // namespace

TEST(RegsTypesTest, ABitIsNotARegisterNorAnOffset)
{
    EXPECT_TRUE((reads<lh::Window, lh::Reg>));
    EXPECT_FALSE((reads<lh::Window, uint32_t>));
    EXPECT_FALSE((reads<lh::Window, lh::Bit>));
    EXPECT_TRUE((tests<lh::Window, lh::Bit>));
    EXPECT_FALSE((tests<lh::Window, lh::Reg>));
    EXPECT_FALSE((sets<lh::Window, uint32_t>));
    EXPECT_FALSE((writes<lh::Window, lh::Bit>));
    EXPECT_FALSE((writes<lh::Window, uint32_t>));
    EXPECT_FALSE((std::is_convertible_v<lh::Bit, lh::Reg>));
    EXPECT_FALSE((std::is_convertible_v<lh::Reg, lh::Bit>));
    EXPECT_FALSE((std::is_convertible_v<uint32_t, lh::Reg>));
}

TEST(RegsTypesTest, BitsOfAWord)
{
    constexpr lh::Bits byte1{8, 8};

    EXPECT_EQ(byte1.of(0x12345678u), 0x56u);
    EXPECT_EQ(byte1.in(0x12345678u, 0xAB), 0x1234AB78u);
    EXPECT_EQ(byte1.in(0x12345678u, 0x1FF), 0x1234FF78u);
    EXPECT_EQ((lh::Bits{0, 32}.mask()), 0xFFFFFFFFu);
    EXPECT_EQ((lh::Bits{4, 32}.in(0, 0xFFFFFFFFu)), 0xFFFFFFF0u);
}

TEST_F(RegsTest, ReadAndWriteOneWordEach)
{
    reg_model_store(&model, 0x10, 0xCAFEF00D);
    EXPECT_EQ(window.read(lh::Reg{0x10}), 0xCAFEF00Du);
    window.write(lh::Reg{0x14}, 0x12345678);
    EXPECT_EQ(reg_model_peek(&model, 0x14), 0x12345678u);
    EXPECT_EQ(model.reads, 1u);
    EXPECT_EQ(model.writes, 1u);
}

TEST_F(RegsTest, SetAndClearChangeOneBitPerWrite)
{
    constexpr lh::Bit bit4{{0x20}, 4};

    reg_model_store(&model, 0x20, 0xF00F000F);
    model.reads = model.writes = 0;
    window.set(bit4);
    EXPECT_EQ(reg_model_peek(&model, 0x20), 0xF00F001Fu);
    window.clear(lh::Bit{{0x20}, 0});
    EXPECT_EQ(reg_model_peek(&model, 0x20), 0xF00F001Eu);
    EXPECT_EQ(model.reads, 2u);
    EXPECT_EQ(model.writes, 2u);
}

TEST_F(RegsTest, TestReadsTheBitOnly)
{
    reg_model_store(&model, 0x30, 0x80000001);
    EXPECT_TRUE(window.test(lh::Bit{{0x30}, 31}));
    EXPECT_TRUE(window.test(lh::Bit{{0x30}, 0}));
    EXPECT_FALSE(window.test(lh::Bit{{0x30}, 1}));
    EXPECT_EQ(reg_model_peek(&model, 0x30), 0x80000001u);
}

TEST_F(RegsTest, FieldKeepsTheOtherBits)
{
    constexpr lh::Field loopback{{0x40}, {0, 3}};

    reg_model_store(&model, 0x40, 0xFFFFFF00);
    window.write(loopback, 6);
    EXPECT_EQ(reg_model_peek(&model, 0x40), 0xFFFFFF06u);
    EXPECT_EQ(window.read(loopback), 6u);
}

TEST_F(RegsTest, AtMovesTheBase)
{
    reg_model_store(&model, 0x84, 7);
    EXPECT_EQ(window.at(0x80).read(lh::Reg{0x04}), 7u);
    EXPECT_FALSE(lh::Window());
    EXPECT_TRUE(window.at(0x80));
}
