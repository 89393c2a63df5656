/*
 * libuv.c - an endpoint and a worker actor in a libuv loop, with a timer, until SIGTERM
 *
 * Prints the first message of the endpoint argv[1]. The worker handles the others, one at a time.
 */
#include <jactor.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <uv.h>

enum { JOBS, WORKER };  /* where the next message comes from: they take turns */
static void* source[2]; /* the endpoint's sock and the worker */
static uv_poll_t watch[2];
static int next = JOBS;
static int status = EXIT_SUCCESS;

/* The actor: adds a frame to each message, and sends a signal back unchanged. */
static void work(j_sock_t* sock, void* args) {
  j_sock_signal(sock, 0);
  for (JCXXMsg* msg = NULL; (msg = j_msg_recv(sock)) != NULL; j_msg_destroy(&msg)) {
    j_msg_addstr(msg, args);
    j_msg_send(&msg, sock); /* on success msg becomes null */
  }
}

static void print(const char* what, JCXXMsg* msg) {
  printf("%s:", what);
  for (char* text = NULL; (text = j_msg_popstr(msg)) != NULL; free(text)) {
    printf(" %s", text);
  }
  puts("");
  j_msg_destroy(&msg);
}

static void on_readable(uv_poll_t* handle, int error, int events);

/* Takes the messages that have arrived, then has the loop wait. The loop does not see what a
 * sock has read ahead, so this also runs before the first wait. */
static void proceed(uv_loop_t* loop) {
  while (j_sock_wait(source[next], 0) == 1) { /* half a message does not count */
    JCXXMsg* msg = j_msg_recv(source[next]);
    if (msg != NULL && next == WORKER) {
      print("answer", msg);
    } else if (msg == NULL || j_msg_send(&msg, source[WORKER]) != 0) {
      perror("libuv"); /* the end of the stream, or bytes that are not a message */
      status = EXIT_FAILURE;
      uv_stop(loop);
      return;
    }
    next = next == JOBS ? WORKER : JOBS;
  }
  uv_poll_start(&watch[next], UV_READABLE, on_readable);
}

/* Also runs after an error or a hang-up: the receive then reports it. */
static void on_readable(uv_poll_t* handle, int error, int events) {
  (void)error, (void)events;
  uv_poll_stop(handle);
  proceed(handle->loop);
}

static void on_timer(uv_timer_t* timer) {
  (void)timer;
  puts("tick");
}

static void on_sigterm(uv_signal_t* handle, int number) {
  (void)number;
  uv_stop(handle->loop);
}

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN); /* the worker may answer after its pipe was closed */
  setvbuf(stdout, NULL, _IOLBF, 0);
  JCXXSock* jobs = argc == 2 ? j_pipe_new_pull(argv[1]) : NULL;
  JCXXMsg* title = j_msg_recv(jobs); /* also reads up to 16 KiB more into the sock */
  JCXXActor* worker = j_actor_new(work, "done");
  if (title == NULL || worker == NULL) {
    perror("libuv");
    return EXIT_FAILURE;
  }
  print("title", title);
  source[JOBS] = jobs;
  source[WORKER] = worker;
  uv_loop_t* loop = uv_default_loop();
  uv_timer_t timer;
  uv_signal_t sigterm;
  uv_poll_init(loop, &watch[JOBS], j_sock_fd(jobs)); /* makes it non-blocking: no harm */
  uv_poll_init(loop, &watch[WORKER], j_sock_fd(worker));
  uv_timer_init(loop, &timer);
  uv_signal_init(loop, &sigterm);
  uv_timer_start(&timer, on_timer, 10, 10);
  uv_signal_start(&sigterm, on_sigterm, SIGTERM);
  proceed(loop);
  uv_run(loop, UV_RUN_DEFAULT);
  uv_poll_stop(&watch[JOBS]); /* before their descriptors are closed */
  uv_poll_stop(&watch[WORKER]);
  j_actor_destroy(&worker);
  j_sock_destroy(&jobs);
  puts("stopped");
  return status;
}
