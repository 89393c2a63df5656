/*
 * request_reply.c - questions and answers between two processes
 *
 * Shows: two endpoints, one for each direction, since an endpoint is one-way; a
 * client that does not wait for ever for a server that has died, since an
 * endpoint has no end of file either.
 */
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "jactor.h"

enum { STOP = 1, LIMIT_MS = 10000 };

static int send_number(JCXXSock* sock, long number) {
  JCXXMsg* msg = j_msg_new();
  const int rc = j_msg_addmem(msg, &number, sizeof number) == 0 ? j_msg_send(&msg, sock) : -1;
  j_msg_destroy(&msg);
  return rc;
}

/* Result: 1 and the number; 0 for a message that holds none, such as STOP. */
static int take_number(JCXXMsg* msg, long* number) {
  JCXXFrame* frame = j_msg_pop(msg);
  const int good = j_frame_size(frame) == sizeof *number;
  if (good) {
    *number = *(long*)(void*)j_frame_data(frame);
  }
  j_frame_destroy(&frame);
  return good;
}

/* The server: answers every number with its square, until STOP. */
static int serve(JCXXSock* requests, JCXXSock* replies) {
  JCXXMsg* msg = NULL;
  int rc = 0;
  while (rc == 0 && (msg = j_msg_recv(requests)) != NULL && j_msg_signal(msg) != STOP) {
    long number = 0;
    rc = take_number(msg, &number) ? send_number(replies, number * number) : -1;
    j_msg_destroy(&msg);
  }
  j_msg_destroy(&msg);
  return rc;
}

/* The client: sends one number and waits for the answer. */
static int ask(JCXXSock* requests, JCXXSock* replies, long number) {
  if (send_number(requests, number) != 0 || j_sock_wait(replies, LIMIT_MS) != 1) {
    fputs("request_reply: no answer\n", stderr);
    return -1;
  }
  JCXXMsg* msg = j_msg_recv(replies);
  long square = 0;
  const int good = take_number(msg, &square);
  j_msg_destroy(&msg);
  printf("%ld * %ld = %ld\n", number, number, square);
  return good ? 0 : -1;
}

static int ask_all(JCXXSock* requests, JCXXSock* replies) {
  int rc = 0;
  for (long number = 2; rc == 0 && number < 5; ++number) {
    rc = ask(requests, replies, number);
  }
  return j_sock_signal(requests, STOP) == 0 ? rc : -1;
}

int main(void) {
  char name[2][64];
  char fifo[2][96];
  for (int i = 0; i < 2; ++i) {
    const char* what = i == 0 ? "requests" : "replies";
    snprintf(name[i], sizeof name[i], "ipc://squares/%s-%ld", what, (long)getpid());
    snprintf(fifo[i], sizeof fifo[i], "/var/run/jactor/Jipc_squares_%s-%ld", what, (long)getpid());
  }
  /* Both ends of both endpoints are open before either process uses them. */
  JCXXSock* pull_requests = j_pipe_new_pull(name[0]);
  JCXXSock* push_requests = j_pipe_new_push(name[0]);
  JCXXSock* pull_replies = j_pipe_new_pull(name[1]);
  JCXXSock* push_replies = j_pipe_new_push(name[1]);
  const int ready = pull_requests && push_requests && pull_replies && push_replies;

  fflush(stdout);
  const pid_t server = ready ? fork() : -1;
  int rc = server == 0  ? serve(pull_requests, push_replies)
           : server > 0 ? ask_all(push_requests, pull_replies)
                        : -1;
  int status = 0;
  if (server > 0 && (waitpid(server, &status, 0) != server || status != 0)) {
    rc = -1;
  }
  j_sock_destroy(&pull_requests);
  j_sock_destroy(&push_requests);
  j_sock_destroy(&pull_replies);
  j_sock_destroy(&push_replies);
  if (server != 0) {
    unlink(fifo[0]);
    unlink(fifo[1]);
  }
  return rc == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
