/*
 * sd_event.c - an endpoint and a worker actor in an sd-event loop, with a timer, until SIGTERM
 *
 * Prints the first message of the endpoint argv[1]. The worker handles the others, one at a time.
 */
#include <jactor.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <systemd/sd-event.h>

#define PERIOD_USEC 10000

enum { JOBS, WORKER };  /* where the next message comes from: they take turns */
static void* source[2]; /* the endpoint's sock and the worker */
static sd_event_source* watch[2];
static int next = JOBS;

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
static void proceed(sd_event* loop) {
  while (j_sock_wait(source[next], 0) == 1) { /* half a message does not count */
    JCXXMsg* msg = j_msg_recv(source[next]);
    if (msg != NULL && next == WORKER) {
      print("answer", msg);
    } else if (msg == NULL || j_msg_send(&msg, source[WORKER]) != 0) {
      perror("sd_event"); /* the end of the stream, or bytes that are not a message */
      sd_event_exit(loop, EXIT_FAILURE);
      return;
    }
    next = next == JOBS ? WORKER : JOBS;
  }
  sd_event_source_set_enabled(watch[next], SD_EVENT_ONESHOT);
}

/* Also runs after a hang-up or an error: the receive then reports it. */
static int on_readable(sd_event_source* event, int fd, uint32_t events, void* arg) {
  (void)fd, (void)events, (void)arg;
  proceed(sd_event_source_get_event(event));
  return 0;
}

static int on_timer(sd_event_source* timer, uint64_t now, void* arg) {
  (void)now, (void)arg;
  puts("tick");
  sd_event_source_set_time_relative(timer, PERIOD_USEC);
  return sd_event_source_set_enabled(timer, SD_EVENT_ONESHOT);
}

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN); /* the worker may answer after its pipe was closed */
  setvbuf(stdout, NULL, _IOLBF, 0);
  sigset_t sigterm; /* the loop reads it from a descriptor: blocked in every thread */
  sigemptyset(&sigterm);
  sigaddset(&sigterm, SIGTERM);
  sigprocmask(SIG_BLOCK, &sigterm, NULL);
  JCXXSock* jobs = argc == 2 ? j_pipe_new_pull(argv[1]) : NULL;
  JCXXMsg* title = j_msg_recv(jobs); /* also reads up to 16 KiB more into the sock */
  JCXXActor* worker = j_actor_new(work, "done");
  if (title == NULL || worker == NULL) {
    perror("sd_event");
    return EXIT_FAILURE;
  }
  print("title", title);
  source[JOBS] = jobs;
  source[WORKER] = worker;
  sd_event* loop = NULL;
  sd_event_default(&loop);
  sd_event_add_signal(loop, NULL, SIGTERM, NULL, NULL); /* no handler: ends the loop */
  sd_event_add_time_relative(loop, NULL, CLOCK_MONOTONIC, PERIOD_USEC, 1, on_timer, NULL);
  for (int i = JOBS; i <= WORKER; ++i) {
    sd_event_add_io(loop, &watch[i], j_sock_fd(source[i]), EPOLLIN, on_readable, NULL);
    sd_event_source_set_enabled(watch[i], SD_EVENT_OFF);
  }
  proceed(loop);
  const int status = sd_event_loop(loop);
  sd_event_source_disable_unref(watch[JOBS]); /* before their descriptors are closed */
  sd_event_source_disable_unref(watch[WORKER]);
  sd_event_unref(loop);
  j_actor_destroy(&worker);
  j_sock_destroy(&jobs);
  puts("stopped");
  return status;
}
