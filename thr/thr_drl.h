// The loading service's part in the library's start-up and shutdown.
#ifndef THR_THR_DRL_H
#define THR_THR_DRL_H

// Keeps a copy of THR_DRL_DEBUG, if it is set; later changes do not reach it.
void thr_drl_keep_debug_setting();

// Clears the initialised flag and releases every text of the service.
void thr_drl_cleanup();

#endif
