/* Daemon start-up and supervision. */
#ifndef PLM_PELLIN_MGR_H
#define PLM_PELLIN_MGR_H

#define PLM_SERVICE_DOWN_COMMAND "keeper_svc down pellin_mgr"
#define PLM_SUPERVISION_PERIOD_S 3

/* The whole life of the daemon: 0 when the board is not served, -1 after
 * an unrecoverable error; otherwise it does not return. */
int plm_main(void);

#endif
