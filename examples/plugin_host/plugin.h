/* What a plugin of plugin_host exports. */
#ifndef PLUGIN_HOST_PLUGIN_H
#define PLUGIN_HOST_PLUGIN_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Judges a text: writes its verdict, one line, into `verdict` of `size` bytes. */
typedef void plugin_judge_func(const char *text, char *verdict, size_t size);

#define PLUGIN_JUDGE "plugin_judge"

#ifdef __cplusplus
}
#endif

#endif
