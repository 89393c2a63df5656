/*
 * wordcount_pusher.c - the process that sends the lines
 *
 * It is the only writer of the endpoint, so its messages may be longer than
 * PIPE_BUF. A send waits while the FIFO is full: the counter sets the pace.
 */
#define _DEFAULT_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "wordcount.h"

static int is_letter(unsigned char c) { return (c | 0x20U) >= 'a' && (c | 0x20U) <= 'z'; }

static int push_line(JCXXSock* push, const unsigned char* line, size_t size) {
  JCXXMsg* msg = j_msg_new();
  if (j_msg_addmem(msg, line, size) != 0 || j_msg_send(&msg, push) != 0) {
    fputs("wordcount: cannot send\n", stderr);
    j_msg_destroy(&msg);
    return -1;
  }
  return 0;
}

/* Where to cut a piece off a full buffer without a newline: behind the last byte
 * that belongs to no word, so that no word is cut. 0 when there is none. */
static size_t cut_between_words(const unsigned char* bytes, size_t size) {
  while (size > 0 && is_letter(bytes[size - 1])) {
    --size;
  }
  return size;
}

/* Sends the whole lines of the buffer, and its rest too when that is the file's
 * last line or fills the buffer. Result: how many bytes are done with; -1 after a
 * message. */
static ssize_t push_lines(JCXXSock* push, const unsigned char* bytes, size_t size, int last) {
  size_t done = 0;
  const unsigned char* newline = NULL;
  while ((newline = memchr(bytes + done, '\n', size - done)) != NULL) {
    const size_t length = (size_t)(newline - (bytes + done));
    if (push_line(push, bytes + done, length) != 0) {
      return -1;
    }
    done += length + 1;
  }
  size_t rest = 0;
  if (last) {
    rest = size - done;
  } else if (done == 0 && size == MAX_LINE) {
    rest = cut_between_words(bytes, size);
    if (rest == 0) {
      fprintf(stderr, "wordcount: a word is longer than %d bytes\n", MAX_LINE);
      return -1;
    }
  }
  if (rest > 0 && push_line(push, bytes + done, rest) != 0) {
    return -1;
  }
  return (ssize_t)(done + rest);
}

/* Result: 0; -1 after a message. */
static int push_descriptor(JCXXSock* push, int fd, const char* name, unsigned char* buffer) {
  size_t held = 0;
  for (;;) {
    const ssize_t got = read(fd, buffer + held, MAX_LINE - held);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      fprintf(stderr, "wordcount: cannot read %s: %s\n", name, strerror(errno));
      return -1;
    }
    held += (size_t)got;
    const ssize_t done = push_lines(push, buffer, held, got == 0);
    if (done < 0 || got == 0) {
      return done < 0 ? -1 : 0;
    }
    held -= (size_t)done;
    memmove(buffer, buffer + done, held);
  }
}

static int push_file(JCXXSock* push, const char* name, unsigned char* buffer) {
  const int fd = open(name, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    fprintf(stderr, "wordcount: cannot read %s: %s\n", name, strerror(errno));
    return -1;
  }
  const int rc = push_descriptor(push, fd, name, buffer);
  close(fd);
  return rc;
}

int push_files(const struct run* run) {
  unsigned char* buffer = malloc(MAX_LINE);
  JCXXSock* push = j_pipe_new_push(run->endpoint);
  int rc = 0;
  if (buffer == NULL || push == NULL) {
    fputs("wordcount: cannot open the endpoint for sending\n", stderr);
    rc = -1;
  }
  for (char** file = run->files; rc == 0 && *file != NULL; ++file) {
    rc = push_file(push, *file, buffer);
  }
  if (rc == 0) {
    rc = j_sock_signal(push, END_OF_FILES);
  }
  j_sock_destroy(&push);
  free(buffer);
  return rc == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
