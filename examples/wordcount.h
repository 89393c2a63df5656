/*
 * wordcount.h - the two processes of the word counter, and what they share
 *
 * The pusher sends each line of the files as one message of one frame into the
 * endpoint, and the signal END_OF_FILES after the last. The counter receives
 * them and prints the result.
 */
#ifndef WORDCOUNT_H
#define WORDCOUNT_H

#include <stddef.h>

#include "jactor.h"

enum {
  MAX_LINE = 262144, /* the most bytes of a message; longer lines go in pieces */
  MAX_WORKERS = 64,
  END_OF_FILES = 1
};

struct run {
  const char* endpoint;
  JCXXSock* pull;          /* open, and locked for this run */
  char** files;            /* their names, a null after the last */
  unsigned long long size; /* bytes of all files, 0 when they cannot tell */
  unsigned workers;
  size_t top; /* how many words to print, 0 for all */
};

/* Sends the files' lines. Result: the exit status of the process. */
int push_files(const struct run* run);

/* Counts what comes, and prints the report. Result: the exit status. */
int count_words(const struct run* run);

#endif
