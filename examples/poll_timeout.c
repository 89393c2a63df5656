/*
 * poll_timeout.c - receiving with a time limit
 *
 * Shows: j_sock_wait before a receive, so that the limit covers a whole message.
 */
#include <stdio.h>
#include <stdlib.h>

#include "jactor.h"

/* Receives from a sock or an actor, waiting at most `milliseconds`. Result: 1 and
 * the message; 0 when the time is up; -1 at the end of the stream, where errno is
 * 0, or on a failure, where it says which. */
static int receive_within(void* source, int milliseconds, JCXXMsg** msg) {
  const int ready = j_sock_wait(source, milliseconds);
  *msg = ready == 1 ? j_msg_recv(source) : NULL;
  return ready == 1 && *msg == NULL ? -1 : ready;
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

static int show(JCXXActor* actor, int limit) {
  JCXXMsg* msg = NULL;
  const int got = receive_within(actor, limit, &msg);
  char* text = j_msg_popstr(msg);
  puts(got == 1 && text != NULL ? text : got == 0 ? "nothing arrived in time" : "failed");
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
