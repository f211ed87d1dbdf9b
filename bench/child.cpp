// The process that the benchmark starts: writes a line and ends. It has no runtime of C++ and no
// console, so that the start of a process is what costs.
#include <windows.h>

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR, int)
{
    const char line[] = "started\r\n";
    DWORD count;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), line, sizeof line - 1, &count, nullptr);
    return 0;
}
