/* c_api_test.c - the whole C interface from plain C11, as a C program uses it. */
#include <jactor.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define EXPECT(condition)                                             \
  do {                                                                \
    if (!(condition)) {                                               \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
      exit(1);                                                        \
    }                                                                 \
  } while (0)

/* Sends every message back with the greeting in front, one frame for each. */
static void greet(j_sock_t* sock, void* args) {
  JCXXMsg* msg;
  EXPECT(j_sock_signal(sock, 7) == 0);
  while ((msg = j_msg_recv(sock)) != NULL) {
    JCXXMsg* answer = j_msg_new();
    JCXXFrame* frame = j_msg_pop(msg);
    EXPECT(j_msg_addstr(answer, args) == 0);
    EXPECT(j_msg_addmem(answer, j_frame_data(frame), j_frame_size(frame)) == 0);
    EXPECT(j_msg_send(&answer, sock) == 0);
    j_frame_destroy(&frame);
    j_msg_destroy(&msg);
  }
}

static void talk_to_an_actor(void) {
  static char greeting[] = "hello";
  JCXXActor* actor = j_actor_new(greet, greeting);
  JCXXMsg* msg = j_msg_new();
  char* text;
  EXPECT(actor != NULL && j_sock_fd(actor) == j_sock_fd(j_actor_sock(actor)));
  EXPECT(j_msg_addmem(msg, "world", 6) == 0);
  EXPECT(j_msg_send(&msg, actor) == 0 && msg == NULL);
  EXPECT((msg = j_msg_recv(actor)) != NULL && j_msg_signal(msg) == -1);
  EXPECT((text = j_msg_popstr(msg)) != NULL && strcmp(text, "hello") == 0);
  free(text);
  EXPECT((text = j_msg_popstr(msg)) != NULL && strcmp(text, "world") == 0);
  free(text);
  EXPECT(j_msg_pop(msg) == NULL);
  j_msg_destroy(&msg);
  j_actor_destroy(&actor);
  EXPECT(actor == NULL && msg == NULL);
}

int main(void) {
  talk_to_an_actor();
  EXPECT(hybrid_zloop_reader(NULL, NULL, NULL, NULL) == -1);
  hybrid_zloop_reader_end(NULL, NULL);
  return 0;
}
