/*
 * jlog.h - the platform's logging call, as a stand-in that writes to standard error
 *
 * Levels: 1 a caught exception, 2 a failure, 9 trace. A line is written when its
 * level is at or below the threshold: 2, or what the environment variable
 * JLOG_LEVEL or jlog_set_level says. Any thread may call at any time; lines of
 * different threads never mix.
 */
#ifndef JLOG_H
#define JLOG_H

#define JLOG_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* Writes the formatted text to standard error with one write. `format` brings
 * its own newline; `module` says who logs and is not shown. A line that cannot
 * be formatted or written is dropped. errno may change. */
JLOG_API void jlog_printf(int level, int module, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/* Sets the threshold: lines above `level` are dropped from now on. */
JLOG_API void jlog_set_level(int level);

#ifdef __cplusplus
}
#endif

#endif
