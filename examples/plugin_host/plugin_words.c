/* A plugin that counts words. */
#include "plugin.h"

#include <stdio.h>

__declspec(dllexport) plugin_judge_func plugin_judge;

void plugin_judge(const char *text, char *verdict, size_t size)
{
    int words = 0;
    for (const char *c = text; *c; c++)
        words += *c != ' ' && (c == text || c[-1] == ' ');
    snprintf(verdict, size, "%d word%s", words, words == 1 ? "" : "s");
}
