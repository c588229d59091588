/* The host's platform board library: keys of the IDPROM cache. */
#include <gtest/gtest.h>

#include "plat_board.h"
#include "private_tmp.hpp"

#define IDPROM "/tmp/idprom_cache.conf"

/* The IDPROM file is written in a private /tmp. */
class PlatBoardTest : public PrivateTmpTest {
protected:
    void TearDown() override
    {
        if (IsSkipped())
            return;
        write_text_file(IDPROM, nullptr);
    }
};

TEST_F(PlatBoardTest, MissingFileGivesDefaults)
{
    write_text_file(IDPROM, nullptr);
    ASSERT_EQ(get_platform_board_type(), 4);
    ASSERT_EQ(is_bramble_sim(), 0);
    ASSERT_EQ(is_qrn_sim(), 0);
}

TEST_F(PlatBoardTest, KeysAreReadAsDecimal)
{
    write_text_file(IDPROM, "CONTROLLER_TYPE=4358\nBOARD_TYPE=5\n"
                            "BRAMBLE_SIM=1\nQRN_SIM=0\n");
    ASSERT_EQ(get_platform_board_type(), 5);
    ASSERT_EQ(is_bramble_sim(), 1);
    ASSERT_EQ(is_qrn_sim(), 0);
    write_text_file(IDPROM, "BOARD_TYPE=3\nQRN_SIM=2\n");
    ASSERT_EQ(get_platform_board_type(), 3);
    ASSERT_EQ(is_bramble_sim(), 0);
    ASSERT_EQ(is_qrn_sim(), 1);
}

TEST_F(PlatBoardTest, UnreadableBoardTypeIs4)
{
    write_text_file(IDPROM, "BOARD_TYPE=\nBOARD_TYPES=6\n");
    ASSERT_EQ(get_platform_board_type(), 4);
    write_text_file(IDPROM, "BOARD_TYPE=six\n");
    ASSERT_EQ(get_platform_board_type(), 4);
}
