/*
 * hello_actor.c - the smallest complete use of an actor
 *
 * Shows: starting an actor, sending it a message of two frames, receiving its
 * answer, stopping it.
 */
#include <stdio.h>
#include <stdlib.h>

#include "jactor.h"

/* Takes a greeting and a name, and sends them back as one sentence. */
static int answer(j_sock_t* sock, JCXXMsg* request) {
  char sentence[128] = "";
  char* greeting = j_msg_popstr(request);
  char* name = j_msg_popstr(request);
  if (greeting != NULL && name != NULL) {
    snprintf(sentence, sizeof sentence, "%s, %s!", greeting, name);
  }
  free(greeting);
  free(name);

  JCXXMsg* reply = j_msg_new();
  if (j_msg_addstr(reply, sentence) != 0 || j_msg_send(&reply, sock) != 0) {
    j_msg_destroy(&reply);
    return -1;
  }
  return 0;
}

/* The actor: signals that it is ready, serves its sock, and returns when a
 * receive returns null, which is how its creator asks it to stop. */
static void greeter(j_sock_t* sock, void* args) {
  (void)args;
  j_sock_signal(sock, 0);
  JCXXMsg* request = NULL;
  int rc = 0;
  while (rc == 0 && (request = j_msg_recv(sock)) != NULL) {
    rc = answer(sock, request);
    j_msg_destroy(&request);
  }
  if (rc != 0) {
    j_sock_signal(sock, 1); /* instead of the answer, for which the creator waits */
  }
}

/* Sends one request and prints the answer. Result: 0, or -1 on any failure. */
static int greet(JCXXActor* actor) {
  JCXXMsg* msg = j_msg_new();
  if (j_msg_addstr(msg, "Hello") != 0 || j_msg_addstr(msg, "actor") != 0 ||
      j_msg_send(&msg, actor) != 0) {
    j_msg_destroy(&msg);
    return -1;
  }
  msg = j_msg_recv(actor);
  char* sentence = j_msg_popstr(msg);
  j_msg_destroy(&msg);
  if (sentence == NULL) {
    return -1;
  }
  puts(sentence);
  free(sentence);
  return 0;
}

int main(void) {
  JCXXActor* actor = j_actor_new(greeter, NULL);
  const int rc = actor == NULL ? -1 : greet(actor);
  j_actor_destroy(&actor);
  if (rc != 0) {
    fputs("hello_actor: failed, see the log lines above\n", stderr);
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
