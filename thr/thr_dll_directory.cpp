#include "thr/thr_dll_directory.h"

#include "thr/thr_osi_sys.h"
#include "thr/thr_owner.h"
#include "thr/thr_report.h"

#include <cstring>

#include <windows.h>

namespace
{

// The names by which an install directory is known: the suite's own, and that of a sibling tool
// that stands alone. The first one decides wherever it occurs.
const char *const MARKERS[] = {"\\velkora\\", "\\ostrevaline\\"};

// The install directory that `directory` lies in; empty when it lies in none.
THR_TEXT install_directory(const THR_TEXT &directory)
{
    const char *text = directory.c_str();
    const char *end = text + directory.size();
    for (const char *marker : MARKERS) {
        size_t length = strlen(marker);
        const char *found = thr_osi_last_backslash(text, end);
        while (found && strncmp(found, marker, length) != 0)
            found = thr_osi_last_backslash(text, found);
        if (found)
            return THR_TEXT(text, found + length - 1);
    }
    return {};
}

} // namespace

void thr_drl_set_dll_directory()
{
    char path[261] = {};
    if (GetModuleFileNameA(GetModuleHandleA(nullptr), path, 260) == 0) {
        thr_debug_message("THR Warning: Cannot determine directory for current executable!\n");
        return;
    }
    THR_TEXT directory = path;
    if (const char *separator = thr_osi_last_backslash(path, path + directory.size()))
        directory.resize(separator - path);
    thr_debug_message("Using module path %s\n", directory.c_str());
    THR_TEXT install = install_directory(directory);
    if (install.empty()) {
        thr_debug_message("THR Warning: Cannot determine Velkora directory from executable "
                          "directory %s. DLL loading may not be correct\n",
                          directory.c_str());
        return;
    }
    THR_TEXT dll_directory = install + "\\bin64";
    thr_debug_message("Adding %s as the DLL search path\n", dll_directory.c_str());
    SetDllDirectoryA(nullptr);
    SetDllDirectoryA(dll_directory.c_str());
}
