/* Platform board library: what the IDPROM says about this board. */
#ifndef PLAT_BOARD_H
#define PLAT_BOARD_H

#ifdef __cplusplus
extern "C" {
#endif

/* The board type; 4 when it cannot be read. */
int get_platform_board_type(void);
/* Non-zero when the platform runs as the Bramble simulator. */
int is_bramble_sim(void);
/* Non-zero when the platform runs as the QRN simulator. */
int is_qrn_sim(void);

#ifdef __cplusplus
}
#endif

#endif
