/*
 * pipe_two_processes.c - two processes that meet at a named endpoint
 *
 * Shows: opening the pull end before the other process starts, so that nothing
 * it sends is lost; a signal as the end marker, since an endpoint has no end of
 * file; removing the FIFO, which the library never does.
 */
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "jactor.h"

enum { END_MARKER = 1 };

/* The child: sends three readings, then the end marker. */
static int push_readings(const char* endpoint) {
  JCXXSock* push = j_pipe_new_push(endpoint);
  int rc = push == NULL ? -1 : 0;
  for (double celsius = 20; rc == 0 && celsius < 23; celsius += 1) {
    JCXXMsg* msg = j_msg_new();
    if (j_msg_addstr(msg, "temperature") != 0 || j_msg_addmem(msg, &celsius, sizeof celsius) != 0 ||
        j_msg_send(&msg, push) != 0) {
      j_msg_destroy(&msg);
      rc = -1;
    }
  }
  /* Send the marker after a failure too, or the parent would wait for ever. */
  if (j_sock_signal(push, END_MARKER) != 0) {
    rc = -1;
  }
  j_sock_destroy(&push);
  return rc == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

/* The parent: prints what arrives until the end marker. */
static int pull_readings(JCXXSock* pull) {
  JCXXMsg* msg = NULL;
  while ((msg = j_msg_recv(pull)) != NULL && j_msg_signal(msg) != END_MARKER) {
    char* name = j_msg_popstr(msg);
    JCXXFrame* value = j_msg_pop(msg);
    if (name != NULL && j_frame_size(value) == sizeof(double)) {
      printf("%s %.1f\n", name, *(double*)(void*)j_frame_data(value));
    }
    free(name);
    j_frame_destroy(&value);
    j_msg_destroy(&msg);
  }
  const int rc = msg == NULL ? EXIT_FAILURE : EXIT_SUCCESS;
  j_msg_destroy(&msg);
  return rc;
}

int main(void) {
  char endpoint[64];
  char fifo[64];
  snprintf(endpoint, sizeof endpoint, "ipc://readings-%ld", (long)getpid());
  snprintf(fifo, sizeof fifo, "/var/run/jactor/Jipc_readings-%ld", (long)getpid());

  JCXXSock* pull = j_pipe_new_pull(endpoint);
  const pid_t child = pull == NULL ? -1 : fork();
  if (child == 0) {
    j_sock_destroy(&pull);
    return push_readings(endpoint);
  }
  int rc = child < 0 ? EXIT_FAILURE : pull_readings(pull);
  int status = 0;
  if (child > 0 && (waitpid(child, &status, 0) != child || status != 0)) {
    rc = EXIT_FAILURE;
  }
  j_sock_destroy(&pull);
  unlink(fifo);
  return rc;
}
