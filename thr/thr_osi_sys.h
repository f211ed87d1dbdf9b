// Paths and files. Narrow paths are UTF-8; every path goes to the system in its long form, so that
// paths beyond MAX_PATH work everywhere. Nothing here reports a refused call: results tell.
#ifndef THR_THR_OSI_SYS_H
#define THR_THR_OSI_SYS_H

#include "thr/thr_owner.h"

#include <cstddef>

#include <sys/stat.h>

// The absolute path with "\\?\" or "\\?\UNC\" in front; a device path ("\\.\") as it is. Empty when
// `path` is null or empty. A relative path is resolved against the current directory of this
// moment; a trailing separator stays.
THR_WIDE_TEXT thr_osi_long_path(const char *path);

// How many characters come before the first letter: the length of a long path's prefix, or of the
// whole text when it has no letter.
size_t thr_osi_skip_to_drive(const THR_WIDE_TEXT &text);

// Takes the text over and gives it back without its last character, if that is a separator.
THR_WIDE_TEXT thr_osi_strip_trailing_separator(THR_WIDE_TEXT &&path);

// The last backslash before `end` of a text in the ANSI code page, in which the second byte of a
// character may look like one; null without any.
const char *thr_osi_last_backslash(const char *text, const char *end);

// Converts `length` characters to the ANSI code page, without a terminator; the result is the bytes
// written, 0 when refused. The flags are those of WideCharToMultiByte, dropped where the code page
// knows none.
int thr_osi_wide_to_ansi(DWORD flags, const wchar_t *text, size_t length, char *buffer,
                         int capacity);

// A free name in the directory of `path`, or, after 1000 taken ones, a taken one.
THR_WIDE_TEXT thr_osi_temp_name(const THR_WIDE_TEXT &path);

// Opens a file by the runtime's open flags; opens of one path are serialised across processes.
// Returns a descriptor of the runtime or -1.
int thr_osi_open(const THR_WIDE_TEXT &path, int flags, int mode);

// The following return 0, or -1 when refused.
int thr_osi_stat(const char *path, struct _stat64i32 *record);
int thr_osi_remove(const char *path); // a file or an empty directory
int thr_osi_chdir(const char *path);

// Fills `buffer` (null: a new one from malloc) with the current directory from its first letter on,
// in the ANSI code page. Null when it does not fit or can't be read.
char *thr_osi_getcwd(char *buffer, size_t size);

bool thr_osi_path_exists(const char *path);

#endif
