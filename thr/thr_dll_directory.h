// Where the suite's libraries are found.
#ifndef THR_THR_DLL_DIRECTORY_H
#define THR_THR_DLL_DIRECTORY_H

// Makes the "bin64" folder of the install directory that the executable runs from the process's DLL
// directory. An executable outside of any install directory is left with the platform's default.
void thr_drl_set_dll_directory();

#endif
