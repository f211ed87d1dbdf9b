// The main thread's record, made and released at the library's start-up and shutdown.
#ifndef THR_THR_THREAD_H
#define THR_THR_THREAD_H

// False when the system has no thread variable left; thr_thread_fini_main() then releases the rest.
bool thr_thread_init_main();
void thr_thread_fini_main();

#endif
