/*
 * wordcount_counter.c - the process that counts: an event loop and worker actors
 *
 * The loop takes lines off the endpoint, puts them into batches, and deals each
 * batch to a worker. Nobody can wait for ever on somebody who waits for him:
 *
 * - A worker acknowledges each batch, and the loop gives none to a worker that
 *   owes it CREDIT acknowledgements. A worker's way back thus holds a few
 *   two-byte signals at most, and a worker never waits while it counts.
 * - While no worker can take the full batch, the loop does not watch the
 *   endpoint. The FIFO fills up, and the pusher waits.
 * - The words come back only when all batches are acknowledged. From then on the
 *   loop sends nothing and only receives.
 */
#include <czmq.h>
#include <inttypes.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "word_table.h"
#include "wordcount.h"

enum {
  CREDIT = 2,          /* batches: one to count, one to have ready behind it */
  BATCH_LINES = 256,   /* frames; a message holds at most 511 */
  BATCH_BYTES = 32768, /* a batch is full from here on */
  REPORT_WORDS = 250,  /* words of a message, each with its count */
  PROGRESS_MS = 250
};

/* Signals between the loop and the workers. */
enum { READY, ACKNOWLEDGED, SEND_WORDS, ALL_SENT, FAILED };

struct counter;

struct worker {
  struct counter* counter;
  JCXXActor* actor;
  unsigned owed; /* batches that it has not acknowledged */
};

struct counter {
  const struct run* run;
  zloop_t* loop;
  struct worker workers[MAX_WORKERS];
  JCXXMsg* batch; /* lines not dealt yet; null when there is none */
  size_t batch_lines;
  size_t batch_bytes;
  bool watching;      /* the loop watches the endpoint */
  bool ended;         /* the pusher's last message has come */
  unsigned reporting; /* workers whose words are still to come */
  bool done;
  struct word_table words;
  uint64_t lines;
  uint64_t bytes;
  uint64_t batches;
  struct timespec started;
};

/* The worker's side, on threads of their own */

/* Counts the words of a line, which it turns into lower case. */
static int count_line(struct word_table* words, unsigned char* line, size_t size) {
  size_t start = 0;
  for (size_t i = 0; i <= size; ++i) {
    const unsigned char lower = i < size ? line[i] | 0x20U : 0;
    if (lower >= 'a' && lower <= 'z') {
      line[i] = lower;
      continue;
    }
    if (i > start && word_table_add(words, (char*)line + start, i - start, 1) != 0) {
      return -1;
    }
    start = i + 1;
  }
  return 0;
}

static int count_batch(j_sock_t* sock, struct word_table* words, JCXXMsg* batch) {
  int rc = 0;
  JCXXFrame* line = NULL;
  while (rc == 0 && (line = j_msg_pop(batch)) != NULL) {
    rc = count_line(words, j_frame_data(line), j_frame_size(line));
    j_frame_destroy(&line);
  }
  return rc == 0 ? j_sock_signal(sock, ACKNOWLEDGED) : rc;
}

static int send_words(j_sock_t* sock, struct word_table* words) {
  size_t next = 0;
  while (next < words->places) {
    JCXXMsg* msg = j_msg_new();
    size_t bytes = 0;
    int rc = msg == NULL ? -1 : 0;
    for (int n = 0; rc == 0 && n < REPORT_WORDS && bytes < MAX_LINE && next < words->places;
         ++next) {
      const struct word* word = &words->words[next];
      if (word->text != NULL) {
        rc = j_msg_addmem(msg, word->text, word->length) |
             j_msg_addmem(msg, &word->count, sizeof word->count);
        bytes += word->length;
        ++n;
      }
    }
    if (rc != 0 || j_msg_send(&msg, sock) != 0) {
      j_msg_destroy(&msg);
      return -1;
    }
  }
  return j_sock_signal(sock, ALL_SENT);
}

static void work(j_sock_t* sock, void* args) {
  (void)args;
  struct word_table words;
  word_table_init(&words); /* a table without memory refuses every word */
  j_sock_signal(sock, READY);
  JCXXMsg* msg = NULL;
  while ((msg = j_msg_recv(sock)) != NULL) {
    const int rc =
        j_msg_signal(msg) == SEND_WORDS ? send_words(sock, &words) : count_batch(sock, &words, msg);
    j_msg_destroy(&msg);
    if (rc != 0) {
      j_sock_signal(sock, FAILED); /* and go on, so that the loop cannot get stuck */
    }
  }
  word_table_free(&words);
}

/* The loop's side */

static double seconds_since(const struct timespec* start) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)(now.tv_sec - start->tv_sec) + (double)(now.tv_nsec - start->tv_nsec) / 1e9;
}

static int on_lines(zloop_t* loop, j_sock_t* sock, void* arg);

static bool batch_is_full(const struct counter* c) {
  return c->batch_lines >= BATCH_LINES || c->batch_bytes >= BATCH_BYTES;
}

/* The worker that owes least; null when all have had their credit. */
static struct worker* free_worker(struct counter* c) {
  struct worker* best = &c->workers[0];
  for (unsigned i = 1; i < c->run->workers; ++i) {
    if (c->workers[i].owed < best->owed) {
      best = &c->workers[i];
    }
  }
  return best->owed < CREDIT ? best : NULL;
}

static int deal(struct counter* c, struct worker* worker) {
  if (j_msg_send(&c->batch, worker->actor) != 0) {
    return -1;
  }
  ++worker->owed;
  ++c->batches;
  c->batch_lines = 0;
  c->batch_bytes = 0;
  return 0;
}

/* Watches the endpoint, or stops it. */
static int watch(struct counter* c, bool wanted) {
  if (wanted == c->watching) {
    return 0;
  }
  c->watching = wanted;
  if (wanted) {
    return hybrid_zloop_reader(c->loop, c->run->pull, on_lines, c);
  }
  hybrid_zloop_reader_end(c->loop, c->run->pull);
  return 0;
}

/* Asks every worker for its words, once all have counted all that they got. */
static int ask_for_words(struct counter* c) {
  for (unsigned i = 0; i < c->run->workers; ++i) {
    if (c->workers[i].owed > 0) {
      return 0;
    }
  }
  for (unsigned i = 0; i < c->run->workers; ++i) {
    if (j_sock_signal(c->workers[i].actor, SEND_WORDS) != 0) {
      return -1;
    }
  }
  c->reporting = c->run->workers;
  return 0;
}

/* Does what the last event has made possible. Result: 0 or -1. */
static int advance(struct counter* c) {
  if (batch_is_full(c) || (c->ended && c->batch != NULL)) {
    struct worker* worker = free_worker(c);
    if (worker != NULL && deal(c, worker) != 0) {
      return -1;
    }
  }
  if (watch(c, !c->ended && !batch_is_full(c)) != 0) {
    return -1;
  }
  if (c->ended && c->batch == NULL && c->reporting == 0 && !c->done) {
    return ask_for_words(c);
  }
  return 0;
}

/* Puts a line into the batch. An empty one is counted but not dealt: it has no
 * words, and empty frames at the end of a message do not belong to it for the
 * receiver. */
static int add_line(struct counter* c, JCXXMsg* msg) {
  JCXXFrame* line = j_msg_pop(msg);
  const size_t size = j_frame_size(line);
  int rc = 0;
  if (size > 0) {
    if (c->batch == NULL) {
      c->batch = j_msg_new();
    }
    rc = j_msg_addmem(c->batch, j_frame_data(line), size);
    ++c->batch_lines;
    c->batch_bytes += size;
  }
  ++c->lines;
  c->bytes += size;
  j_frame_destroy(&line);
  return rc;
}

/* Receives one message from the pusher, which is there. */
static int take_line(struct counter* c) {
  JCXXMsg* msg = j_msg_recv(c->run->pull);
  if (msg == NULL) {
    fputs("wordcount: what came through the endpoint is not a message\n", stderr);
    return -1;
  }
  int rc = 0;
  if (j_msg_signal(msg) == END_OF_FILES) {
    c->ended = true;
  } else {
    rc = add_line(c, msg);
  }
  j_msg_destroy(&msg);
  return rc == 0 ? advance(c) : rc;
}

/* Takes what is there, also in the sock, of which no event will tell. */
static int take_lines(struct counter* c) {
  int rc = 0;
  while (rc == 0 && c->watching && j_sock_wait(c->run->pull, 0) == 1) {
    rc = take_line(c);
  }
  return rc;
}

static int on_lines(zloop_t* loop, j_sock_t* sock, void* arg) {
  (void)loop;
  (void)sock;
  return take_lines(arg);
}

static int add_words(struct word_table* words, JCXXMsg* msg) {
  int rc = 0;
  JCXXFrame* word = NULL;
  while (rc == 0 && (word = j_msg_pop(msg)) != NULL) {
    JCXXFrame* number = j_msg_pop(msg);
    uint64_t count = 0;
    if (j_frame_size(number) == sizeof count) {
      memcpy(&count, j_frame_data(number), sizeof count);
      rc = word_table_add(words, (char*)j_frame_data(word), j_frame_size(word), count);
    } else {
      rc = -1;
    }
    j_frame_destroy(&number);
    j_frame_destroy(&word);
  }
  return rc;
}

/* Handles one message of a worker. */
static int take_answer(struct worker* worker) {
  struct counter* c = worker->counter;
  JCXXMsg* msg = j_msg_recv(worker->actor);
  const int signal = j_msg_signal(msg);
  int rc = 0;
  if (signal == ACKNOWLEDGED) {
    --worker->owed;
  } else if (signal == ALL_SENT) {
    --c->reporting;
    c->done = c->reporting == 0;
  } else if (msg == NULL || signal >= 0 || add_words(&c->words, msg) != 0) {
    fputs("wordcount: a worker has failed\n", stderr);
    rc = -1;
  }
  j_msg_destroy(&msg);
  return rc == 0 ? advance(c) : rc;
}

static int on_answer(zloop_t* loop, j_sock_t* sock, void* arg) {
  (void)loop;
  struct worker* worker = arg;
  int rc = 0;
  while (rc == 0 && j_sock_wait(sock, 0) == 1) {
    rc = take_answer(worker);
  }
  if (rc == 0) {
    rc = take_lines(worker->counter);
  }
  return worker->counter->done ? -1 : rc; /* -1 leaves the loop */
}

static int on_progress(zloop_t* loop, int timer_id, void* arg) {
  (void)loop;
  (void)timer_id;
  const struct counter* c = arg;
  const double seconds = seconds_since(&c->started);
  const double megabytes = (double)c->bytes / 1e6;
  fprintf(stderr, "\r%" PRIu64 " lines, %.1f of %.1f MB, %.1f MB/s \033[K", c->lines, megabytes,
          (double)c->run->size / 1e6, megabytes / seconds);
  return 0;
}

static int start_workers(struct counter* c) {
  for (unsigned i = 0; i < c->run->workers; ++i) {
    struct worker* worker = &c->workers[i];
    worker->counter = c;
    worker->actor = j_actor_new(work, NULL);
    if (hybrid_zloop_reader(c->loop, j_actor_sock(worker->actor), on_answer, worker) != 0) {
      fputs("wordcount: cannot start a worker\n", stderr);
      return -1;
    }
  }
  return 0;
}

static void stop_workers(struct counter* c) {
  for (unsigned i = 0; i < c->run->workers; ++i) {
    hybrid_zloop_reader_end(c->loop, j_actor_sock(c->workers[i].actor));
    j_actor_destroy(&c->workers[i].actor);
  }
}

/* Result: 0; -1 when standard output has failed. */
static int print_report(struct counter* c, double seconds) {
  word_table_sort(&c->words);
  const size_t different = c->words.used;
  const size_t rows = c->run->top == 0 || c->run->top > different ? different : c->run->top;
  uint64_t all = 0;
  for (size_t i = 0; i < different; ++i) {
    all += c->words.words[i].count;
  }
  for (size_t i = 0; i < rows; ++i) {
    const struct word* word = &c->words.words[i];
    printf("  %10" PRIu64 " %.*s\n", word->count, (int)word->length, word->text);
  }
  printf("%zu of %zu different words, %" PRIu64 " words in all\n", rows, different, all);
  printf("%" PRIu64 " messages with %" PRIu64 " bytes through %s, dealt to %u workers in %" PRIu64
         " batches\n",
         c->lines, c->bytes, c->run->endpoint, c->run->workers, c->batches);
  printf("%.3f s: %.0f messages/s, %.1f MB/s\n", seconds, (double)c->lines / seconds,
         (double)c->bytes / 1e6 / seconds);
  return fflush(stdout) == 0 && !ferror(stdout) ? 0 : -1;
}

/* Runs the loop from the first line to the last word. */
static void run_loop(struct counter* c) {
  const bool terminal = isatty(STDERR_FILENO) != 0;
  if (terminal) {
    zloop_timer(c->loop, PROGRESS_MS, 0, on_progress, c);
  }
  clock_gettime(CLOCK_MONOTONIC, &c->started);
  if (watch(c, true) == 0) {
    zloop_start(c->loop);
  }
  watch(c, false);
  if (terminal) {
    fputs("\r\033[K", stderr);
  }
}

int count_words(const struct run* run) {
  signal(SIGPIPE, SIG_IGN); /* a reader that has gone is a failed write, here and in workers */
  struct counter c = {.run = run, .loop = zloop_new()};
  double seconds = 0;
  if (c.loop != NULL && word_table_init(&c.words) == 0 && start_workers(&c) == 0) {
    run_loop(&c);
    seconds = seconds_since(&c.started);
  }
  stop_workers(&c);
  zloop_destroy(&c.loop);
  j_msg_destroy(&c.batch);
  int status = c.done ? EXIT_SUCCESS : EXIT_FAILURE;
  if (c.done && print_report(&c, seconds) != 0) {
    perror("wordcount: cannot write the report");
    status = EXIT_FAILURE;
  }
  word_table_free(&c.words);
  return status;
}
