// The main thread's record, made and released at the library's start-up and shutdown.
#ifndef THR_THR_THREAD_H
#define THR_THR_THREAD_H

void thr_thread_init_main();
void thr_thread_fini_main();

#endif
