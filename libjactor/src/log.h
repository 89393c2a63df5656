// log.h - the only way in which the library writes a log line.
//
// A line names the file, the line and the function it comes from. A line about a
// failure leaves errno unchanged, whatever jlog_printf does: callers check it
// later.
#ifndef JACTOR_LOG_H
#define JACTOR_LOG_H

#include <cerrno>

#include "jlog.h"

#define JACTOR_LOG_MODULE 281

#define JACTOR_LEVEL_EXCEPTION 1
#define JACTOR_LEVEL_ERROR 2
#define JACTOR_LEVEL_TRACE 9

// Makes the whole format of a line from its text.
#define JACTOR_LINE(text) "%s.%d.%s: " text "\n"

#define JACTOR_WRITE_LINE(level, function, format, ...)                  \
  jlog_printf(level, JACTOR_LOG_MODULE, format, __FILE_NAME__, __LINE__, \
              function __VA_OPT__(, ) __VA_ARGS__)

// Writes a line with a whole format, in the name of the function that the caller gives. Keeps
// errno, which the line may be about.
#define JACTOR_LOG_FORMAT(level, function, format, ...)                    \
  do {                                                                     \
    const int errno_before_log = errno;                                    \
    JACTOR_WRITE_LINE(level, function, format __VA_OPT__(, ) __VA_ARGS__); \
    errno = errno_before_log;                                              \
  } while (false)

// The same for successes, where nothing reads errno: the exported call restores it.
#define JACTOR_TRACE_AS(function, text, ...) \
  JACTOR_WRITE_LINE(JACTOR_LEVEL_TRACE, function, JACTOR_LINE(text) __VA_OPT__(, ) __VA_ARGS__)
#define JACTOR_ERROR_AS(function, text, ...) \
  JACTOR_LOG_FORMAT(JACTOR_LEVEL_ERROR, function, JACTOR_LINE(text) __VA_OPT__(, ) __VA_ARGS__)

// The usual macros: for the function in which they are used.
#define JACTOR_TRACE(text, ...) JACTOR_TRACE_AS(__func__, text __VA_OPT__(, ) __VA_ARGS__)
#define JACTOR_ERROR(text, ...) JACTOR_ERROR_AS(__func__, text __VA_OPT__(, ) __VA_ARGS__)

#endif
