/* A plugin that knows a palindrome: letters and digits alone count, in either case. */
#include "plugin.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

__declspec(dllexport) plugin_judge_func plugin_judge;

static int is_ignored(char c)
{
    return !isalnum((unsigned char)c);
}

void plugin_judge(const char *text, char *verdict, size_t size)
{
    const char *left = text, *right = text + strlen(text);
    int is_palindrome = 1;
    while (left < right) {
        if (is_ignored(*left))
            left++;
        else if (is_ignored(right[-1]))
            right--;
        else if (tolower((unsigned char)*left++) != tolower((unsigned char)*--right))
            is_palindrome = 0;
    }
    snprintf(verdict, size, is_palindrome ? "a palindrome" : "not a palindrome");
}
