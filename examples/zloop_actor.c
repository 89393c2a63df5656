/*
 * zloop_actor.c - an actor that runs its own event loop
 *
 * Shows: a CZMQ loop that serves the actor's sock and a timer; receiving while
 * j_sock_wait says that there is a message; stopping at the end of the stream, for
 * which the loop's poller is made tolerant.
 */
#include <czmq.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include "jactor.h"

enum { READY, BEAT, FAILED }; /* the signals that the actor sends */

/* On the loop's thread: answers every message that waits. */
static int on_message(zloop_t* loop, j_sock_t* sock, void* arg) {
  (void)loop;
  (void)arg;
  while (j_sock_wait(sock, 0) == 1) {
    JCXXMsg* msg = j_msg_recv(sock);
    if (msg == NULL) {
      return -1; /* the end of the stream: leave the loop */
    }
    if (j_msg_send(&msg, sock) != 0) {
      j_msg_destroy(&msg);
      return -1;
    }
  }
  return 0;
}

/* On the loop's thread: sends a signal as a sign of life. */
static int on_timer(zloop_t* loop, int timer_id, void* arg) {
  (void)loop;
  (void)timer_id;
  return j_sock_signal(arg, BEAT);
}

static void echo_with_heartbeat(j_sock_t* sock, void* args) {
  const size_t* period_ms = args;
  zloop_t* loop = zloop_new();
  const int ready = loop != NULL && hybrid_zloop_reader(loop, sock, on_message, NULL) == 0 &&
                    zloop_timer(loop, *period_ms, 0, on_timer, sock) != -1;
  j_sock_signal(sock, READY); /* always, or j_actor_new would wait for ever */
  if (ready) {
    /* When the creator hangs up, poll() flags an error along with the data. An
     * ordinary poller is dropped at the second such event, and if the handler left
     * something for it, would never see the end of the stream. */
    zmq_pollitem_t item = {.fd = j_sock_fd(sock), .events = ZMQ_POLLIN};
    zloop_poller_set_tolerant(loop, &item);
    zloop_start(loop);
  } else {
    j_sock_signal(sock, FAILED);
  }
  hybrid_zloop_reader_end(loop, sock);
  zloop_destroy(&loop);
}

static int send_text(JCXXActor* actor, const char* text) {
  JCXXMsg* msg = j_msg_new();
  const int rc = j_msg_addstr(msg, text) == 0 ? j_msg_send(&msg, actor) : -1;
  j_msg_destroy(&msg); /* does nothing after a send that succeeded */
  return rc;
}

/* Prints answers until `answers` of them and `beats` signs of life have arrived. */
static int receive(JCXXActor* actor, int answers, int beats) {
  while (answers > 0 || beats > 0) {
    JCXXMsg* msg = j_msg_recv(actor);
    char* text = j_msg_popstr(msg);
    if (text != NULL) {
      puts(text);
      --answers;
    } else if (j_msg_signal(msg) == BEAT) {
      --beats;
    } else {
      return -1;
    }
    free(text);
    j_msg_destroy(&msg);
  }
  return 0;
}

int main(void) {
  /* The actor also writes without being asked: a beat sent after its creator has closed
   * its end must be a failed call, not the end of the process. */
  signal(SIGPIPE, SIG_IGN);
  size_t period_ms = 10;
  JCXXActor* actor = j_actor_new(echo_with_heartbeat, &period_ms);
  int rc = actor == NULL ? -1 : 0;
  if (rc == 0) {
    rc = send_text(actor, "one") | send_text(actor, "two") | send_text(actor, "three");
  }
  if (rc == 0 && (rc = receive(actor, 3, 3)) == 0) {
    puts("three beats arrived");
    rc = send_text(actor, "unanswered");
  }
  j_actor_destroy(&actor); /* right after the message: the loop gets both at once */
  puts(rc == 0 ? "the actor has stopped" : "failed");
  return rc == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
