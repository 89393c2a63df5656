/*
 * libevent.c - an endpoint and a worker actor in a libevent loop, with a timer, until SIGTERM
 *
 * Prints the first message of the endpoint argv[1]. The worker handles the others, one at a time.
 */
#include <event2/event.h>
#include <jactor.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

enum { JOBS, WORKER };  /* where the next message comes from: they take turns */
static void* source[2]; /* the endpoint's sock and the worker */
static struct event* watch[2];
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

/* Takes the messages that have arrived, then has the loop wait. The loop does not see what a
 * sock has read ahead, so this also runs before the first wait. */
static void proceed(struct event_base* base) {
  while (j_sock_wait(source[next], 0) == 1) { /* half a message does not count */
    JCXXMsg* msg = j_msg_recv(source[next]);
    if (msg != NULL && next == WORKER) {
      print("answer", msg);
    } else if (msg == NULL || j_msg_send(&msg, source[WORKER]) != 0) {
      perror("libevent"); /* the end of the stream, or bytes that are not a message */
      status = EXIT_FAILURE;
      event_base_loopexit(base, NULL);
      return;
    }
    next = next == JOBS ? WORKER : JOBS;
  }
  event_add(watch[next], NULL);
}

/* Also runs after a hang-up or an error: the receive then reports it. */
static void on_readable(evutil_socket_t fd, short events, void* base) {
  (void)fd, (void)events;
  proceed(base);
}

static void on_timer(evutil_socket_t fd, short events, void* arg) {
  (void)fd, (void)events, (void)arg;
  puts("tick");
}

static void on_sigterm(evutil_socket_t number, short events, void* base) {
  (void)number, (void)events;
  event_base_loopexit(base, NULL);
}

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN); /* the worker may answer after its pipe was closed */
  setvbuf(stdout, NULL, _IOLBF, 0);
  JCXXSock* jobs = argc == 2 ? j_pipe_new_pull(argv[1]) : NULL;
  JCXXMsg* title = j_msg_recv(jobs); /* also reads up to 16 KiB more into the sock */
  JCXXActor* worker = j_actor_new(work, "done");
  if (title == NULL || worker == NULL) {
    perror("libevent");
    return EXIT_FAILURE;
  }
  print("title", title);
  source[JOBS] = jobs;
  source[WORKER] = worker;
  struct event_base* base = event_base_new();
  struct event* timer = event_new(base, -1, EV_PERSIST, on_timer, NULL);
  struct event* sigterm = evsignal_new(base, SIGTERM, on_sigterm, base);
  const struct timeval period = {.tv_usec = 10000};
  event_add(timer, &period);
  event_add(sigterm, NULL);
  for (int i = JOBS; i <= WORKER; ++i) { /* without EV_PERSIST: for one event each */
    watch[i] = event_new(base, j_sock_fd(source[i]), EV_READ, on_readable, base);
  }
  proceed(base);
  event_base_dispatch(base);
  event_free(watch[JOBS]); /* before their descriptors are closed */
  event_free(watch[WORKER]);
  event_free(timer);
  event_free(sigterm);
  event_base_free(base);
  j_actor_destroy(&worker);
  j_sock_destroy(&jobs);
  puts("stopped");
  return status;
}
