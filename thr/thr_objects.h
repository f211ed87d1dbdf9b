// The mutex of the process-wide handlers, made and released at the library's start-up and shutdown.
#ifndef THR_THR_OBJECTS_H
#define THR_THR_OBJECTS_H

void thr_handlers_init();
void thr_handlers_fini();

#endif
