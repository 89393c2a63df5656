/*
 * poll_timeout.c - receiving with a time limit
 *
 * Shows: poll() on j_sock_fd, but only while j_sock_buffered says that nothing
 * has been read ahead, since poll() does not see those bytes.
 */
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "jactor.h"

static long milliseconds_now(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* Receives from a sock or an actor, waiting at most `limit` milliseconds for the
 * beginning of a message. (A sender that stops in the middle of one can hold the
 * receive longer.) Result: 1 and the message; 0 when the time is over; -1 at the
 * end of the stream or on a failure. */
static int receive_within(void* source, long limit, JCXXMsg** msg) {
  const long deadline = milliseconds_now() + limit;
  struct pollfd readable = {.fd = j_sock_fd(source), .events = POLLIN, .revents = 0};
  *msg = NULL;
  while (j_sock_buffered(source) == 0) {
    const long left = deadline - milliseconds_now();
    const int events = poll(&readable, 1, left > 0 ? (int)left : 0);
    if (events == 0) {
      return 0;
    }
    if (events > 0) {
      break; /* bytes, or the end of the stream: the receive says which */
    }
    if (errno != EINTR) {
      return -1;
    }
  }
  *msg = j_msg_recv(source);
  return *msg == NULL ? -1 : 1;
}

/* An actor that answers each message with itself. */
static void echo(j_sock_t* sock, void* args) {
  (void)args;
  j_sock_signal(sock, 0);
  JCXXMsg* msg = NULL;
  while ((msg = j_msg_recv(sock)) != NULL && j_msg_send(&msg, sock) == 0) {
  }
  j_msg_destroy(&msg);
}

static int show(JCXXActor* actor, long limit) {
  JCXXMsg* msg = NULL;
  const int got = receive_within(actor, limit, &msg);
  char* text = j_msg_popstr(msg);
  puts(got == 1 && text != NULL ? text : got == 0 ? "nothing came in time" : "failed");
  free(text);
  j_msg_destroy(&msg);
  return got;
}

int main(void) {
  JCXXActor* actor = j_actor_new(echo, NULL);
  int rc = show(actor, 50) == 0 ? EXIT_SUCCESS : EXIT_FAILURE; /* nothing was asked yet */
  static const char* const questions[] = {"first", "second"};
  for (size_t i = 0; i < 2; ++i) {
    JCXXMsg* msg = j_msg_new();
    if (j_msg_addstr(msg, questions[i]) != 0 || j_msg_send(&msg, actor) != 0) {
      rc = EXIT_FAILURE;
    }
    j_msg_destroy(&msg); /* does nothing after a send that succeeded */
  }
  if (rc == EXIT_SUCCESS && (show(actor, 5000) != 1 || show(actor, 5000) != 1)) {
    rc = EXIT_FAILURE;
  }
  j_actor_destroy(&actor);
  return rc;
}
