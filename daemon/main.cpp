/* pellin_mgr: brings up and supervises the Larks Hollow FPGA. The command
 * line is ignored. */
#include "pellin_mgr.hpp"

int main(void)
{
    return plm_main();
}
