// Lock files: how processes exclude each other. A lock file is held by the one process that has it
// open; the system removes it when its holder closes it or ends.
#ifndef THR_THR_INTERPROCESS_H
#define THR_THR_INTERPROCESS_H

#include "thr/thr_owner.h"

#include <windows.h>

// Stands for no lock file held.
#define THR_BAD_FILE_HANDLE INVALID_HANDLE_VALUE

// Splits at the last slash or, without any, at the last backslash; a path without a separator has
// the directory ".". `has_directory` and `filename` may be null; the caller frees the texts.
void thr_ip_split_path(const char *file, char **directory, bool *has_directory, char **filename);

// A new text: directory, "/", file name.
char *thr_ip_join_path(const char *directory, const char *filename);

// The absolute path for the lock files of `file`, in the ANSI code page; empty when its directory
// can't be used. Enters that directory for a moment: the process's relative paths move with it.
THR_HEAP_TEXT thr_ip_lock_file_path(const char *file);

// Takes a lock file. THR_BAD_FILE_HANDLE when refused, with `error` (may be null) EEXIST while
// somebody holds it and EINVAL for every other reason; `error` is 0 on success.
HANDLE thr_ip_lock_file_create(const char *path, int *error);

// Whether somebody holds the lock file; removes one that is left over.
bool thr_ip_lock_file_is_held(const char *path);

// Releases a lock file; does nothing for THR_BAD_FILE_HANDLE.
void thr_ip_lock_file_close(const char *path, HANDLE lock_file);

#endif
