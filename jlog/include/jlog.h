/*
 * jlog.h - a stand-in for the platform's logging call, which writes to standard error
 * or to a function of the program
 *
 * Levels: 1 a caught exception, 2 a failure, 9 trace. A line is written when its
 * level is at or below the threshold: 2, or what the environment variable
 * JLOG_LEVEL or jlog_set_level says. Any thread may call at any time; lines of
 * different threads never mix.
 *
 * The environment variable JLOG_PREFIX names what precedes each line, in the order
 * given: time (in UTC), pid, tid, level. Commas or blanks separate the words.
 */
#ifndef JLOG_H
#define JLOG_H

#define JLOG_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* Writes the formatted text to standard error with one write, or passes it to the
 * sink. `format` must end with a newline; `module` identifies the caller and is not shown.
 * A line that cannot be formatted or written is dropped. errno may change. */
JLOG_API void jlog_printf(int level, int module, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/* Sets the threshold: lines above `level` are dropped from now on. */
JLOG_API void jlog_set_level(int level);

/* A function of the program that takes the lines. `level` and `module` are those of
 * the jlog_printf call; `line` has the prefix but no newline at its end. It belongs to
 * the log and is gone when the function returns. `arg` is that of jlog_set_sink.
 *
 * The function runs on the thread that logs, possibly in several threads at the same time,
 * and the log holds no lock meanwhile. It may call jlog_printf, jlog_set_sink and libjactor:
 * lines that these log on the same thread go to standard error. A C++ function must not
 * throw. */
typedef void (*jlog_sink_fn)(int level, int module, const char* line, void* arg);

/* From now on passes the lines to `sink` instead of standard error; null: to standard
 * error again. `arg` stays the caller's.
 *
 * Waits until the former sink has returned in every thread: its `arg` may then be
 * freed. So do not call this while holding a lock that the former sink takes. A call from
 * inside a sink does not wait: the former sink may still run in other threads. */
JLOG_API void jlog_set_sink(jlog_sink_fn sink, void* arg);

#ifdef __cplusplus
}
#endif

#endif
