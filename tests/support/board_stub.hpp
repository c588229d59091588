/* The platform board library as unit tests set it. */
#ifndef BOARD_STUB_H
#define BOARD_STUB_H

extern int stub_board_type;
extern unsigned int stub_board_type_calls;
extern int stub_bramble_sim;
extern int stub_qrn_sim;
extern unsigned int stub_qrn_sim_calls;

#endif
