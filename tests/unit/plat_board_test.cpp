/* The host's platform board library: keys of the IDPROM cache. */
#include "cmocka_all.h"
#include "plat_board.h"
#include "private_tmp.hpp"

#define IDPROM "/tmp/idprom_cache.conf"

static void test_missing_file_gives_defaults(void **state)
{
    (void)state;
    write_text_file(IDPROM, NULL);
    assert_int_equal(get_platform_board_type(), 4);
    assert_int_equal(is_bramble_sim(), 0);
    assert_int_equal(is_qrn_sim(), 0);
}

static void test_keys_are_read_as_decimal(void **state)
{
    (void)state;
    write_text_file(IDPROM, "CONTROLLER_TYPE=4358\nBOARD_TYPE=5\n"
                            "BRAMBLE_SIM=1\nQRN_SIM=0\n");
    assert_int_equal(get_platform_board_type(), 5);
    assert_int_equal(is_bramble_sim(), 1);
    assert_int_equal(is_qrn_sim(), 0);
    write_text_file(IDPROM, "BOARD_TYPE=3\nQRN_SIM=2\n");
    assert_int_equal(get_platform_board_type(), 3);
    assert_int_equal(is_bramble_sim(), 0);
    assert_int_equal(is_qrn_sim(), 1);
}

static void test_unreadable_board_type_is_4(void **state)
{
    (void)state;
    write_text_file(IDPROM, "BOARD_TYPE=\nBOARD_TYPES=6\n");
    assert_int_equal(get_platform_board_type(), 4);
    write_text_file(IDPROM, "BOARD_TYPE=six\n");
    assert_int_equal(get_platform_board_type(), 4);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test(test_missing_file_gives_defaults),
        cmocka_unit_test(test_keys_are_read_as_decimal),
        cmocka_unit_test(test_unreadable_board_type_is_4),
    };

    if (enter_private_tmp() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
