/*
 * wordcount.c - counts the words of text files with processes, an event loop and
 * actors
 *
 *   pusher process --(endpoint: one message a line)--> counter process
 *                                                        |  event loop
 *                                       batches of lines v  ^ acknowledgements, counts
 *                                                      worker actors
 *
 * This file: the command line, and the parent of the two processes, which waits
 * for them and for signals. It holds the endpoint for one run at a time and
 * removes its FIFO in the end, whatever happened to the others.
 */
#define _DEFAULT_SOURCE
#include "wordcount.h"

#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static const char usage[] =
    "usage: wordcount [--endpoint NAME] [--workers N] [--top N] FILE...\n"
    "\n"
    "Prints the most frequent words of the files. A word is a run of the letters\n"
    "A to Z and a to z; case does not count.\n"
    "\n"
    "  --endpoint NAME  send the lines through this endpoint (ipc://wordcount)\n"
    "  --workers N      count with N actors, 1 to 64 (4)\n"
    "  --top N          print the N most frequent words (20); 0 prints all\n"
    "  --help           print this text\n";

static const char* const role_names[2] = {"pushing", "counting"};

static unsigned long number_or_exit(const char* option, const char* text, unsigned long least,
                                    unsigned long most) {
  char* end = NULL;
  errno = 0;
  const unsigned long value = strtoul(text, &end, 10);
  if (text[0] < '0' || text[0] > '9' || *end != '\0' || errno != 0 || value < least ||
      value > most) {
    fprintf(stderr, "wordcount: %s takes a number from %lu to %lu, not \"%s\"\n", option, least,
            most, text);
    exit(2);
  }
  return value;
}

static void read_options(struct run* run, int argc, char** argv) {
  static const struct option options[] = {{"endpoint", required_argument, NULL, 'e'},
                                          {"workers", required_argument, NULL, 'w'},
                                          {"top", required_argument, NULL, 't'},
                                          {"help", no_argument, NULL, 'h'},
                                          {NULL, 0, NULL, 0}};
  int option = 0;
  while ((option = getopt_long(argc, argv, "", options, NULL)) != -1) {
    if (option == 'e') {
      run->endpoint = optarg;
    } else if (option == 'w') {
      run->workers = (unsigned)number_or_exit("--workers", optarg, 1, MAX_WORKERS);
    } else if (option == 't') {
      run->top = number_or_exit("--top", optarg, 0, 1000000000);
    } else {
      fputs(usage, option == 'h' ? stdout : stderr);
      exit(option == 'h' ? 0 : 2);
    }
  }
  if (optind == argc) {
    fputs(usage, stderr);
    exit(2);
  }
  run->files = argv + optind;
}

/* Looks at the files before anything is started. Result: 0 when all can be read. */
static int check_files(struct run* run) {
  for (char** file = run->files; *file != NULL; ++file) {
    struct stat status;
    int error = stat(*file, &status) != 0 || access(*file, R_OK) != 0 ? errno : 0;
    if (error == 0 && S_ISDIR(status.st_mode)) {
      error = EISDIR;
    }
    if (error != 0) {
      fprintf(stderr, "wordcount: cannot read %s: %s\n", *file, strerror(error));
      return -1;
    }
    run->size += (unsigned long long)status.st_size;
  }
  return 0;
}

/* Opens the pull end and locks the FIFO for this run. The lock lasts as long as
 * one of its processes does. Result: the sock, or null after a message. */
static JCXXSock* open_alone(const char* endpoint) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    JCXXSock* pull = j_pipe_new_pull(endpoint);
    if (pull == NULL) {
      continue; /* two first openings have met: the next one succeeds */
    }
    if (flock(j_sock_fd(pull), LOCK_EX | LOCK_NB) != 0) {
      fprintf(stderr,
              "wordcount: another run is using the endpoint %s: wait until it has ended, or name "
              "another one with --endpoint\n",
              endpoint);
      j_sock_destroy(&pull);
      return NULL;
    }
    struct stat status;
    if (fstat(j_sock_fd(pull), &status) == 0 && status.st_nlink > 0) {
      return pull;
    }
    j_sock_destroy(&pull); /* the run before this one has just removed it */
  }
  fprintf(stderr,
          "wordcount: cannot open the endpoint %s: it must be a name such as ipc://wordcount, and "
          "the directory /var/run/jactor open to you\n",
          endpoint);
  return NULL;
}

/* Removes the FIFO, which /proc knows by its path, and lets the lock go. */
static void remove_endpoint(JCXXSock** pull) {
  char link[64];
  char path[4096];
  snprintf(link, sizeof link, "/proc/self/fd/%d", j_sock_fd(*pull));
  const ssize_t length = readlink(link, path, sizeof path - 1);
  if (length > 0) {
    path[length] = '\0';
    unlink(path);
  }
  j_sock_destroy(pull);
}

/* Starts one of the two processes; it dies with this one. Result: as fork's. */
static pid_t start(int (*role)(const struct run*), struct run* run) {
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
      _exit(EXIT_FAILURE); /* the parent had gone before it was asked for */
    }
    const int status = role(run);
    j_sock_destroy(&run->pull);
    exit(status);
  }
  return pid;
}

static void kill_all(const pid_t children[2]) {
  for (int i = 0; i < 2; ++i) {
    if (children[i] > 0) {
      kill(children[i], SIGKILL);
    }
  }
}

/* Collects the processes that have ended and sets their entries to 0. Result: 0,
 * or an exit status when one has failed. */
static int collect(pid_t children[2]) {
  int result = 0;
  for (int i = 0; i < 2; ++i) {
    int status = 0;
    if (children[i] <= 0 || waitpid(children[i], &status, WNOHANG) != children[i]) {
      continue;
    }
    children[i] = 0;
    if (WIFSIGNALED(status)) {
      fprintf(stderr, "wordcount: the %s process was ended by signal %d (%s)\n", role_names[i],
              WTERMSIG(status), strsignal(WTERMSIG(status)));
      result = EXIT_FAILURE;
    } else if (WEXITSTATUS(status) != 0) {
      result = WEXITSTATUS(status);
    }
  }
  return result;
}

/* Waits until both processes have ended. A signal, or the failure of one, ends
 * the other. Result: the exit status. */
static int supervise(pid_t children[2], const sigset_t* signals) {
  int result = 0;
  while (result == 0 && (children[0] > 0 || children[1] > 0)) {
    const int signal = sigwaitinfo(signals, NULL);
    if (signal == SIGCHLD) {
      result = collect(children);
    } else if (signal > 0) {
      fprintf(stderr, "\nwordcount: stopped by signal %d (%s)\n", signal, strsignal(signal));
      result = 128 + signal;
    }
  }
  kill_all(children);
  for (int i = 0; i < 2; ++i) {
    if (children[i] > 0) {
      waitpid(children[i], NULL, 0);
    }
  }
  return result;
}

/* Blocks, here and in both processes, the signals that supervise() waits for.
 * SIGHUP stays without effect for a run that was started to outlive its terminal. */
static void block_signals(sigset_t* signals) {
  struct sigaction hangup;
  sigemptyset(signals);
  sigaddset(signals, SIGINT);
  sigaddset(signals, SIGTERM);
  sigaddset(signals, SIGCHLD);
  if (sigaction(SIGHUP, NULL, &hangup) == 0 && hangup.sa_handler != SIG_IGN) {
    sigaddset(signals, SIGHUP);
  }
  sigprocmask(SIG_BLOCK, signals, NULL);
}

int main(int argc, char** argv) {
  struct run run = {.endpoint = "ipc://wordcount", .workers = 4, .top = 20};
  read_options(&run, argc, argv);
  if (check_files(&run) != 0) {
    return EXIT_FAILURE;
  }
  sigset_t signals;
  block_signals(&signals);
  run.pull = open_alone(run.endpoint);
  if (run.pull == NULL) {
    return EXIT_FAILURE;
  }
  pid_t children[2] = {start(push_files, &run), start(count_words, &run)};
  int result = EXIT_FAILURE;
  if (children[0] > 0 && children[1] > 0) {
    result = supervise(children, &signals);
  } else {
    fprintf(stderr, "wordcount: cannot start a process: %s\n", strerror(errno));
    kill_all(children);
  }
  remove_endpoint(&run.pull);
  return result;
}
