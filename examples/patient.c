/*
 * patient.c - receiving with a time limit, until the end, a failure or Ctrl-C
 *
 *   patient            receives in an actor, from a creator that soon hangs up
 *   patient ENDPOINT   receives what anybody sends there
 *
 * Shows: j_sock_wait, whose limit covers whole messages and which a signal ends;
 * errno, which tells the end of a stream from damage.
 */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include "jactor.h"

enum { LIMIT_MS = 250 };

static volatile sig_atomic_t stopped;

static void stop(int number) { stopped = number; }

static void show(JCXXMsg* msg) {
  char* text = j_msg_popstr(msg);
  puts(text != NULL ? text : "a message without text");
  free(text);
  j_msg_destroy(&msg);
}

/* Result: the exit status. */
static int receive(void* source) {
  while (!stopped) {
    const int ready = j_sock_wait(source, LIMIT_MS);
    JCXXMsg* msg = ready == 1 ? j_msg_recv(source) : NULL;
    if (msg != NULL) {
      show(msg);
    } else if (ready == 0) {
      puts("nothing yet");
    } else if (errno == 0) {
      puts("the end");
      return EXIT_SUCCESS;
    } else if (errno == EBADMSG) {
      puts("this is not a message: the stream is damaged");
      return EXIT_FAILURE;
    } else if (errno != EINTR) {
      perror("patient: cannot receive");
      return EXIT_FAILURE;
    }
  }
  puts("stopped");
  return EXIT_SUCCESS;
}

static void receiver(j_sock_t* sock, void* status) {
  j_sock_signal(sock, 0);
  *(int*)status = receive(sock);
}

static int receive_from_creator(void) {
  int status = EXIT_FAILURE;
  JCXXActor* actor = j_actor_new(receiver, &status);
  JCXXMsg* msg = j_msg_new();
  if (j_msg_addstr(msg, "hello") != 0 || j_msg_send(&msg, actor) != 0) {
    perror("patient: cannot send");
  }
  j_msg_destroy(&msg); /* does nothing after a send that succeeded */
  j_actor_destroy(&actor);
  return status;
}

static int receive_from_endpoint(const char* endpoint) {
  JCXXSock* pull = j_pipe_new_pull(endpoint);
  if (pull == NULL) {
    perror(endpoint);
    return EXIT_FAILURE;
  }
  const int status = receive(pull);
  j_sock_destroy(&pull);
  return status;
}

int main(int argc, char** argv) {
  signal(SIGINT, stop);
  setvbuf(stdout, NULL, _IOLBF, 0); /* show each line immediately */
  return argc > 1 ? receive_from_endpoint(argv[1]) : receive_from_creator();
}
