/*
 * c_api_test.c - the whole of jactor.h from plain C11, in the order of the header
 *
 * Each phase is named as it begins, so that the last name says where it failed. No test
 * framework takes part: what a C program sees is what is tested.
 */
#include <czmq.h>
#include <jactor.h>

/* Ends the program, with the line, when the condition does not hold. */
#define EXPECT(condition)                                             \
  do {                                                                \
    if (!(condition)) {                                               \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
      exit(EXIT_FAILURE);                                             \
    }                                                                 \
  } while (0)

static char endpoint[64];

static void expect_text(JCXXMsg* msg, const char* expected) {
  char* text = j_msg_popstr(msg);
  EXPECT(text != NULL && strcmp(text, expected) == 0);
  free(text);
}

static void messages(void) {
  JCXXMsg* msg = j_msg_new();
  EXPECT(msg != NULL && j_msg_signal(msg) == -1 && j_msg_pop(msg) == NULL);
  EXPECT(j_msg_addstr(msg, "first") == 0);
  EXPECT(j_msg_addmem(msg, "sec\0nd", 6) == 0);
  EXPECT(j_msg_addmem(msg, "", 0) == 0);
  errno = 0;
  EXPECT(j_msg_addmem(msg, NULL, 0) == -1 && errno == EINVAL);
  EXPECT(j_msg_addmem(msg, "", JACTOR_MAX_SIZE + 1) == -1 && errno != 0);
  expect_text(msg, "first");
  expect_text(msg, "sec");
  expect_text(msg, "");
  EXPECT(j_msg_popstr(msg) == NULL);
  j_msg_destroy(&msg);
  EXPECT(msg == NULL);
  j_msg_destroy(&msg);
  j_msg_destroy(NULL);
}

static void frames(void) {
  JCXXMsg* msg = j_msg_new();
  EXPECT(j_msg_addmem(msg, "\0\1\2", 3) == 0);
  JCXXFrame* frame = j_msg_pop(msg);
  j_msg_destroy(&msg);
  EXPECT(j_frame_size(frame) == 3 && memcmp(j_frame_data(frame), "\0\1\2", 3) == 0);
  j_frame_data(frame)[0] = 'x';
  EXPECT(j_frame_data(frame)[0] == 'x');
  j_frame_destroy(&frame);
  EXPECT(frame == NULL && j_frame_size(frame) == 0 && j_frame_data(frame) == NULL);
}

/* Signals what its creator gave it, then answers each message with "hello" before it. */
static void greet(j_sock_t* sock, void* args) {
  JCXXMsg* msg;
  EXPECT(j_sock_signal(sock, *(unsigned char*)args) == 0);
  while ((msg = j_msg_recv(sock)) != NULL) {
    JCXXMsg* answer = j_msg_new();
    JCXXFrame* frame = j_msg_pop(msg);
    EXPECT(j_msg_addstr(answer, "hello") == 0);
    EXPECT(j_msg_addmem(answer, j_frame_data(frame), j_frame_size(frame)) == 0);
    EXPECT(j_msg_send(&answer, sock) == 0 && answer == NULL);
    j_frame_destroy(&frame);
    j_msg_destroy(&msg);
  }
  EXPECT(errno == 0); /* the end of the stream */
  *(unsigned char*)args = 0;
}

static void an_actor(void) {
  unsigned char ready = 255;
  JCXXActor* actor = j_actor_new(greet, &ready);
  void* ends[2] = {actor, j_actor_sock(actor)};
  EXPECT(actor != NULL && j_sock_fd(ends[0]) == j_sock_fd(ends[1]) && j_sock_fd(actor) >= 0);
  for (int i = 0; i < 2; ++i) {
    JCXXMsg* msg = j_msg_new();
    EXPECT(j_msg_addstr(msg, "world") == 0);
    EXPECT(j_msg_send(&msg, ends[i]) == 0 && msg == NULL);
    EXPECT((msg = j_msg_recv(ends[1 - i])) != NULL);
    expect_text(msg, "hello");
    expect_text(msg, "world");
    j_msg_destroy(&msg);
  }
  j_actor_destroy(&actor);
  EXPECT(actor == NULL && ready == 0);
  EXPECT(j_actor_new(NULL, NULL) == NULL && errno == EINVAL);
}

static void an_endpoint_and_waiting(void) {
  JCXXSock* push = j_pipe_new_push(endpoint);
  JCXXSock* pull = j_pipe_new_pull(endpoint);
  EXPECT(push != NULL && pull != NULL && j_sock_fd(pull) >= 0);
  EXPECT(j_sock_wait(pull, 0) == 0 && j_sock_wait(pull, 1) == 0);
  EXPECT(j_sock_signal(push, 200) == 0 && j_sock_signal(push, 1) == 0);
  EXPECT(j_sock_wait(pull, -1) == 1);
  JCXXMsg* msg = j_msg_recv(pull);
  EXPECT(j_msg_signal(msg) == 200 && j_msg_addstr(msg, "x") == -1);
  EXPECT(j_sock_buffered(pull) > 0); /* the second signal was read with the first */
  EXPECT(j_msg_send(&msg, push) == 0);
  for (int i = 0; i < 2; ++i) {
    EXPECT((msg = j_msg_recv(pull)) != NULL && j_msg_signal(msg) == (i == 0 ? 1 : 200));
    j_msg_destroy(&msg);
  }
  EXPECT(j_sock_buffered(pull) == 0);
  j_sock_destroy(&push);
  j_sock_destroy(&pull);
  EXPECT(push == NULL && pull == NULL);
  EXPECT(j_pipe_new_pull("tcp://other") == NULL && errno == EPROTONOSUPPORT);
  EXPECT(j_pipe_new_push("x") == NULL && errno == EINVAL);
}

/* Counts the signals up to the one that says how many there were. */
static int on_signal(zloop_t* loop, j_sock_t* sock, void* arg) {
  int* count = arg;
  EXPECT(loop != NULL);
  while (j_sock_wait(sock, 0) == 1) {
    JCXXMsg* msg = j_msg_recv(sock);
    const int value = j_msg_signal(msg);
    j_msg_destroy(&msg);
    if (value == ++*count) {
      return -1;
    }
  }
  return 0;
}

static void an_event_loop(void) {
  int count = 0;
  JCXXSock* push = j_pipe_new_push(endpoint);
  JCXXSock* pull = j_pipe_new_pull(endpoint);
  zloop_t* loop = zloop_new();
  EXPECT(hybrid_zloop_reader(loop, pull, on_signal, &count) == 0);
  EXPECT(j_sock_signal(push, 0) == 0 && j_sock_signal(push, 0) == 0 && j_sock_signal(push, 3) == 0);
  EXPECT(zloop_start(loop) == -1 && count == 3);
  hybrid_zloop_reader_end(loop, pull);
  EXPECT(hybrid_zloop_reader(NULL, pull, on_signal, &count) != 0);
  zloop_destroy(&loop);
  j_sock_destroy(&push);
  j_sock_destroy(&pull);
}

int main(void) {
  static const struct {
    const char* name;
    void (*run)(void);
  } phases[] = {
      {"messages", messages},           {"frames", frames},
      {"an actor", an_actor},           {"an endpoint, and waiting", an_endpoint_and_waiting},
      {"an event loop", an_event_loop},
  };
  char fifo[128];
  snprintf(endpoint, sizeof endpoint, "ipc://c-api-%ld", (long)getpid());
  snprintf(fifo, sizeof fifo, "/var/run/jactor/Jipc_%s", endpoint + strlen("ipc://"));
  for (size_t i = 0; i < sizeof phases / sizeof phases[0]; ++i) {
    puts(phases[i].name);
    fflush(stdout);
    phases[i].run();
  }
  return unlink(fifo);
}
