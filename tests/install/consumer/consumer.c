/* consumer.c - a program outside the project that uses the installed C interface. */
#include <jactor.h>
#include <stdio.h>
#include <stdlib.h>

static void echo(j_sock_t* sock, void* args) {
  (void)args;
  j_sock_signal(sock, 0);
  JCXXMsg* msg = NULL;
  while ((msg = j_msg_recv(sock)) != NULL && j_msg_send(&msg, sock) == 0) {
  }
  j_msg_destroy(&msg);
}

int main(void) {
  JCXXActor* actor = j_actor_new(echo, NULL);
  JCXXMsg* msg = j_msg_new();
  if (j_msg_addstr(msg, "jactor") != 0 || j_msg_send(&msg, actor) != 0) {
    return EXIT_FAILURE;
  }
  msg = j_msg_recv(actor);
  char* text = j_msg_popstr(msg);
  printf("C: %s %d.%d.%d\n", text == NULL ? "nothing" : text, JACTOR_VERSION_MAJOR,
         JACTOR_VERSION_MINOR, JACTOR_VERSION_PATCH);
  free(text);
  j_msg_destroy(&msg);
  j_actor_destroy(&actor);
  return EXIT_SUCCESS;
}
