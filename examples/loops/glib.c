/*
 * glib.c - an endpoint and a worker actor in a GLib loop, with a timer, until SIGTERM
 *
 * Prints the first message of the endpoint argv[1]. The worker handles the others, one at a time.
 */
#include <glib-unix.h>
#include <jactor.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

enum { JOBS, WORKER };  /* where the next message comes from: they take turns */
static void* source[2]; /* the endpoint's sock and the worker */
static guint watch;     /* the source that waits, or 0 */
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

static gboolean on_readable(gint fd, GIOCondition condition, gpointer loop);

/* Takes the messages that have arrived, then has the loop wait. The loop does not see what a
 * sock has read ahead, so this also runs before the first wait. */
static void proceed(GMainLoop* loop) {
  while (j_sock_wait(source[next], 0) == 1) { /* half a message does not count */
    JCXXMsg* msg = j_msg_recv(source[next]);
    if (msg != NULL && next == WORKER) {
      print("answer", msg);
    } else if (msg == NULL || j_msg_send(&msg, source[WORKER]) != 0) {
      perror("glib"); /* the end of the stream, or bytes that are not a message */
      status = EXIT_FAILURE;
      g_main_loop_quit(loop);
      return;
    }
    next = next == JOBS ? WORKER : JOBS;
  }
  watch = g_unix_fd_add(j_sock_fd(source[next]), G_IO_IN, on_readable, loop);
}

/* Also runs after a hang-up or an error: the receive then reports it. */
static gboolean on_readable(gint fd, GIOCondition condition, gpointer loop) {
  (void)fd, (void)condition;
  watch = 0;
  proceed(loop);
  return G_SOURCE_REMOVE; /* proceed() has added another one */
}

static gboolean on_timer(gpointer arg) {
  (void)arg;
  puts("tick");
  return G_SOURCE_CONTINUE;
}

static gboolean on_sigterm(gpointer loop) {
  g_main_loop_quit(loop);
  return G_SOURCE_CONTINUE;
}

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN); /* the worker may answer after its pipe was closed */
  setvbuf(stdout, NULL, _IOLBF, 0);
  JCXXSock* jobs = argc == 2 ? j_pipe_new_pull(argv[1]) : NULL;
  JCXXMsg* title = j_msg_recv(jobs); /* also reads up to 16 KiB more into the sock */
  JCXXActor* worker = j_actor_new(work, "done");
  if (title == NULL || worker == NULL) {
    perror("glib");
    return EXIT_FAILURE;
  }
  print("title", title);
  source[JOBS] = jobs;
  source[WORKER] = worker;
  GMainLoop* loop = g_main_loop_new(NULL, FALSE);
  const guint timer = g_timeout_add(10, on_timer, NULL);
  const guint sigterm = g_unix_signal_add(SIGTERM, on_sigterm, loop);
  proceed(loop);
  if (status == EXIT_SUCCESS) {
    g_main_loop_run(loop);
  }
  if (watch != 0) {
    g_source_remove(watch); /* before its descriptor is closed */
  }
  g_source_remove(timer);
  g_source_remove(sigterm);
  g_main_loop_unref(loop);
  j_actor_destroy(&worker);
  j_sock_destroy(&jobs);
  puts("stopped");
  return status;
}
