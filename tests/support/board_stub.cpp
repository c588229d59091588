#include "board_stub.hpp"

#include "plat_board.h"

int stub_board_type = 4;
unsigned int stub_board_type_calls;
int stub_bramble_sim;
int stub_qrn_sim;
unsigned int stub_qrn_sim_calls;

int get_platform_board_type(void)
{
    stub_board_type_calls++;
    return stub_board_type;
}

int is_bramble_sim(void)
{
    return stub_bramble_sim;
}

int is_qrn_sim(void)
{
    stub_qrn_sim_calls++;
    return stub_qrn_sim;
}
