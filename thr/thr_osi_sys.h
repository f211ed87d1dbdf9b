// Paths and files. Narrow paths are UTF-8; every path goes to the system in its long form, so that
// paths beyond MAX_PATH work everywhere. Nothing here reports a refused call: results tell.
#ifndef THR_THR_OSI_SYS_H
#define THR_THR_OSI_SYS_H

#include <cstddef>
#include <string>

#include <sys/stat.h>

// The absolute path with "\\?\" or "\\?\UNC\" in front; a device path ("\\.\") as it is. Empty when
// `path` is null or empty. A relative path is resolved against the current directory of this
// moment; a trailing separator stays.
std::wstring thr_osi_long_path(const char *path);

// How many characters come before the first letter: the length of a long path's prefix, or of the
// whole text when it has no letter.
size_t thr_osi_skip_to_drive(const std::wstring &text);

// Takes the text over and gives it back without its last character, if that is a separator.
std::wstring thr_osi_strip_trailing_separator(std::wstring &&path);

// A free name in the directory of `path`, or, after 1000 taken ones, a taken one.
std::wstring thr_osi_temp_name(const std::wstring &path);

// Opens a file by the runtime's open flags; opens of one path are serialised across processes.
// Returns a descriptor of the runtime or -1.
int thr_osi_open(const std::wstring &path, int flags, int mode);

// The following return 0, or -1 when refused.
int thr_osi_stat(const char *path, struct _stat64i32 *record);
int thr_osi_remove(const char *path); // a file or an empty directory
int thr_osi_chdir(const char *path);

// Fills `buffer` (null: a new one from malloc) with the current directory from its first letter on,
// in the ANSI code page. Null when it does not fit or can't be read.
char *thr_osi_getcwd(char *buffer, size_t size);

bool thr_osi_path_exists(const char *path);

#endif
