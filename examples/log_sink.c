/*
 * log_sink.c - a program that takes the log lines itself
 *
 * Shows: jlog_set_sink with a function that counts the failures and prints them
 * without the source position; ending the sink before its memory goes.
 */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "jactor.h"
#include "jlog.h"

struct journal {
  pthread_mutex_t lock; /* every thread that logs calls the sink */
  int lines;
};

static void keep(int level, int module, const char* line, void* arg) {
  struct journal* journal = arg;
  const char* text = strstr(line, ": ");
  (void)module;
  pthread_mutex_lock(&journal->lock);
  ++journal->lines;
  printf("level %d: %s\n", level, text != NULL ? text + 2 : line);
  pthread_mutex_unlock(&journal->lock);
}

/* Signals that it is ready and waits for the end of its stream, which is logged. */
static void idler(j_sock_t* sock, void* args) {
  (void)args;
  j_sock_signal(sock, 0);
  JCXXMsg* msg = j_msg_recv(sock);
  j_msg_destroy(&msg);
}

int main(void) {
  struct journal journal = {PTHREAD_MUTEX_INITIALIZER, 0};
  jlog_set_level(2);
  jlog_set_sink(keep, &journal);

  int no_sock = 0;
  JCXXMsg* msg = j_msg_recv(&no_sock); /* a mistake: refused and logged here */
  j_msg_destroy(&msg);
  JCXXActor* actor = j_actor_new(idler, NULL);
  j_actor_destroy(&actor); /* logged on the actor's thread */

  jlog_set_sink(NULL, NULL); /* from here on no thread uses the journal */
  printf("%d lines\n", journal.lines);
  return journal.lines > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
