/*
 * jactor.h - actors, multi-part messages, signals and named endpoints over pipes
 *
 * The C interface of libjactor. It is plain C11, compiles as C++, and needs no
 * other header of this library and none of CZMQ's.
 *
 * Rules that hold for every call:
 *
 * 1. Handles. JCXXMsg, JCXXFrame, JCXXSock and JCXXActor are opaque. A call
 *    checks every handle it is given against the registry of live objects. A
 *    null first handle gives the call's failure result silently; a null later
 *    argument, or a handle that is stale, foreign or of another class, gives
 *    the failure result and one error line in the log. Nothing is read through
 *    such a pointer. (A handle whose address has since been given to a new
 *    object of the same class is taken for the new object.)
 * 2. Results. int: 0 for success, non-zero (usually -1) for failure, unless the
 *    call says otherwise; pointers: null on failure; sizes: 0 on failure. A call
 *    that fails sets errno to the reason: EINVAL for a bad handle or argument,
 *    otherwise as the call says. A call that succeeds leaves errno unchanged.
 * 3. Errors never leave as C++ exceptions. A failure that the call does not
 *    describe (memory, threads, descriptors, the file system) gives the call's
 *    failure result and one line in the log with the reason.
 * 4. Ownership. What a *_new call, j_msg_recv, j_msg_pop or j_msg_popstr
 *    returns is the caller's to destroy (free() for j_msg_popstr). A message
 *    that was sent is gone, and the caller's handle is null. Destroy calls set
 *    the caller's handle to null, whether or not it was valid.
 * 5. Threads. Any thread may make any call, but only one thread at a time may
 *    use a given message, frame, sock or actor, and none may destroy it while
 *    another thread is in a call with it.
 * 6. Blocking. Sends block while the pipe is full, receives until a whole
 *    message has arrived. They have no time-outs: j_sock_wait waits for a
 *    message with a limit.
 * 7. SIGPIPE. The library installs no handler: sending to a peer that has gone
 *    raises SIGPIPE, and fails with -1 only in a thread that blocks the signal
 *    or a process that ignores it.
 */
#ifndef JACTOR_H
#define JACTOR_H

#include <stddef.h>

/* The version. It is defined only here. */
#define JACTOR_VERSION_MAJOR 9
#define JACTOR_VERSION_MINOR 1
#define JACTOR_VERSION_PATCH 0

/* The most payload bytes of one frame, and of one message of several frames. */
#define JACTOR_MAX_SIZE 1048576

#define JACTOR_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

typedef struct JCXXMsg JCXXMsg;     /* a message: a list of frames, or a signal */
typedef struct JCXXFrame JCXXFrame; /* a block of bytes taken out of a message */
typedef struct JCXXSock JCXXSock;   /* one end of a byte stream */
typedef struct JCXXActor JCXXActor; /* a function that runs on its own thread */
typedef JCXXSock j_sock_t;

/* CZMQ's event loop, declared the way czmq.h declares it. */
typedef struct _zloop_t zloop_t;

/* An actor function: `sock` is the actor's end of the pipe pair, borrowed from
 * the actor; `args` is what the creator passed, unchanged. */
typedef void (*j_actor_fn)(j_sock_t* sock, void* args);

/* An event-loop handler: 0 to go on, -1 to end the loop. */
typedef int (*j_zloop_fn)(zloop_t* loop, j_sock_t* sock, void* arg);

/*
 * Messages
 *
 *     JCXXMsg* msg = j_msg_new();
 *     j_msg_addstr(msg, "temperature");
 *     j_msg_addmem(msg, &celsius, sizeof celsius);
 *     if (j_msg_send(&msg, sock) != 0)
 *         j_msg_destroy(&msg);
 */

/* Makes an empty data message.
 * Result:    the message, registered; null when memory has run out.
 * Ownership: the caller's, until it is sent or destroyed. */
JACTOR_API JCXXMsg* j_msg_new(void);

/* Destroys the message `*p` and its frames, and sets `*p` to null, even when
 * `*p` was not a live message (then nothing is freed and an error is logged).
 * A null `p` or `*p` does nothing. */
JACTOR_API void j_msg_destroy(JCXXMsg** p);

/* Appends a frame holding the bytes of the string `s`, without its terminating
 * zero; the empty string gives a frame of 0 bytes.
 * Result:    0; -1 when `msg` or `s` is bad, `s` is longer than
 *            JACTOR_MAX_SIZE bytes, `msg` is a signal, or memory has run out.
 *            Then the message is unchanged.
 * Ownership: `s` is copied. */
JACTOR_API int j_msg_addstr(JCXXMsg* msg, const char* s);

/* Appends a frame holding `size` bytes from `data`. `data` must not be null,
 * even when `size` is 0.
 * Result:    0; -1 when `msg` or `data` is bad, `size` is above
 *            JACTOR_MAX_SIZE, `msg` is a signal, or memory has run out. Then
 *            the message is unchanged.
 * Ownership: the bytes are copied. */
JACTOR_API int j_msg_addmem(JCXXMsg* msg, const void* data, size_t size);

/* Takes the first frame out of the message.
 * Result:    the frame; null when the message has none left or is not live.
 * Ownership: the frame becomes the caller's: j_frame_destroy. */
JACTOR_API JCXXFrame* j_msg_pop(JCXXMsg* msg);

/* Takes the first frame out of the message and returns its bytes as a string:
 * the frame's bytes and a zero byte after them. Zero bytes inside the frame are
 * copied like any other.
 * Result:    the string; null when the message holds no frame, is not live, or
 *            memory has run out.
 * Ownership: the string is the caller's: free(). The frame is destroyed. */
JACTOR_API char* j_msg_popstr(JCXXMsg* msg);

/* Returns the value of a signal.
 * Result:    0 to 255 for a signal message; -1 for a data message or a message
 *            that is not live. */
JACTOR_API int j_msg_signal(JCXXMsg* msg);

/*
 * Frames come only from j_msg_pop.
 */

/* Destroys the frame `*p` and sets `*p` to null, even when `*p` was not a live
 * frame (then nothing is freed and an error is logged). A null `p` or `*p` does
 * nothing. */
JACTOR_API void j_frame_destroy(JCXXFrame** p);

/* Returns a pointer to the frame's bytes.
 * Result:    the first byte; null for a frame of 0 bytes or one that is not live.
 * Ownership: the frame's; valid until the frame is destroyed. The bytes may be
 *            changed in place. */
JACTOR_API unsigned char* j_frame_data(JCXXFrame* frame);

/* Returns the frame's length in bytes; 0 when the frame is not live. */
JACTOR_API size_t j_frame_size(JCXXFrame* frame);

/*
 * Actors
 *
 *     static void echo(j_sock_t* sock, void* args)
 *     {
 *         JCXXMsg* msg;
 *         (void)args;
 *         j_sock_signal(sock, 0);                  // ready
 *         while ((msg = j_msg_recv(sock)) != NULL) // null: asked to stop
 *             if (j_msg_send(&msg, sock) != 0)
 *                 j_msg_destroy(&msg);
 *     }
 *     ...
 *     JCXXActor* actor = j_actor_new(echo, NULL);
 *     ...
 *     j_actor_destroy(&actor);
 *
 * A creator that destroys its actor with an answer outstanding makes the actor
 * send to a peer that has gone: see rule 7.
 */

/* Starts `fn(sock, args)` on a new thread and waits until it has sent its
 * first signal on `sock`.
 *
 * Blocks until that signal arrives, without a time-out: an actor function must
 * signal (any value) before it does anything that may fail, and before it
 * returns. Messages that it sends before the signal are thrown away.
 *
 * Result:    the actor; null when `fn` is null, the pipes, the thread or memory
 *            are not available, the wait failed, or the process is ending: the log
 *            has one line with the reason, and nothing is left behind.
 * Errors:    EINVAL, ENOMEM, ECANCELED when the process is ending, and what
 *            the system reports for the pipes (EMFILE) or the thread (EAGAIN).
 * Ownership: the actor is the caller's: j_actor_destroy. `args` stays the
 *            caller's and must outlive the actor function. */
JACTOR_API JCXXActor* j_actor_new(j_actor_fn fn, void* args);

/* Asks the actor to stop, waits until its function has returned, destroys it
 * and sets `*p` to null, even when `*p` was not a live actor (then an error is
 * logged). A null `p` or `*p` does nothing.
 *
 * The request is the end of the stream: the caller's end is closed, and a
 * receive on the actor's end returns null. Nothing else is sent.
 *
 * Blocks until the function returns, without a time-out. Not a cancellation point.
 * Threads:   not from the actor's own function. */
JACTOR_API void j_actor_destroy(JCXXActor** p);

/* Lends the caller's end of the actor's pipe pair.
 * Result:    the sock; null when the actor is not live.
 * Ownership: the actor's. Never pass it to j_sock_destroy, or j_actor_destroy
 *            logs an error. */
JACTOR_API JCXXSock* j_actor_sock(JCXXActor* actor);

/*
 * Sending, receiving, signalling. `dest`, `source` and `self` are a sock or an
 * actor; an actor stands for the caller's end of its pipe pair.
 */

/* Sends the message `*p` as one gathered write.
 *
 * Blocks while the pipe is full. A message carries at most JACTOR_MAX_SIZE
 * bytes, and at most 511 non-empty frames (one write takes 1,024 entries).
 *
 * Result:    0 and `*p` null; non-zero with errno EINVAL when a handle is bad,
 *            EMSGSIZE when the message is too large, ENOMEM, EPIPE, EINTR or
 *            EAGAIN when nothing could be written, and EIO when a part of the
 *            message is on the stream, which is then unusable.
 * Ownership: the message is gone on success and stays the caller's otherwise. */
JACTOR_API int j_msg_send(JCXXMsg** p, void* dest);

/* Receives the next message or signal.
 *
 * Blocks until it is complete.
 *
 * Result:    the message, possibly a signal (j_msg_signal) or without frames;
 *            null with errno 0 at the end of the stream; EBADMSG when the bytes
 *            are not a message, or end inside one; EINVAL when `source` is bad;
 *            ENOMEM; or what the failed read reported.
 * Ownership: the message is the caller's: j_msg_destroy. */
JACTOR_API JCXXMsg* j_msg_recv(void* source);

/* Sends a signal: one value from 0 to 255.
 * Result:    0; non-zero with errno EINVAL when `self` is bad, or why the write
 *            failed. */
JACTOR_API int j_sock_signal(void* self, unsigned char value);

/* Destroys a sock made by j_pipe_new_pull or j_pipe_new_push and sets `*p` to
 * null, even when `*p` was not a live sock (then an error is logged). A null `p`
 * or `*p` does nothing. Never for the ends of an actor's pipe pair.
 *
 * What a pull sock has read ahead (j_sock_buffered) is lost, with an error line
 * that says how many bytes, and the endpoint's next reader starts in the middle
 * of a message. Not a cancellation point. */
JACTOR_API void j_sock_destroy(JCXXSock** p);

/*
 * Waiting: with a time limit, or in any event loop. A loop watches j_sock_fd,
 * and receives while j_sock_wait(sock, 0) is 1: before its first wait, and each
 * time the descriptor is readable.
 */

/* Returns the read descriptor of a sock or an actor, for poll() and the like.
 * Result:    the descriptor; -1 with errno EBADF when there is none, EINVAL when
 *            the handle is bad.
 * Ownership: the sock's. Reading it, writing it or closing it directly breaks
 *            the stream. */
JACTOR_API int j_sock_fd(void* self);

/* Returns how many bytes the sock (or actor) has taken from its descriptor and
 * not yet delivered. poll() does not see these bytes.
 * Result:    the count, and 0 when the handle is bad. */
JACTOR_API size_t j_sock_buffered(void* self);

/* Waits until a receive on a sock or an actor would not block.
 *
 * Gives up after `milliseconds` by the monotonic clock, never earlier; a negative
 * number means no limit, 0 does not wait. Half a message does not count, and
 * nothing of it is lost when the time is up: it stays in the sock, and
 * j_sock_buffered counts it. The sock then holds up to one whole message, at
 * most 8 MiB.
 *
 *     while (j_sock_wait(sock, 0) == 1)         // in a loop's handler
 *         if ((msg = j_msg_recv(sock)) == NULL) // the end: errno says why
 *             break;
 *
 * Result: 1 when a whole message or signal has arrived, or the end of the stream,
 *         or bytes that are not a message (j_msg_recv then says so); 0 when the
 *         time is up; -1 with errno EINVAL for a bad handle, EBADF for a sock
 *         without a descriptor, ENOMEM, or EINTR when a signal handler ran. */
JACTOR_API int j_sock_wait(void* self, int milliseconds);

/*
 * Named endpoints: a name such as "ipc://sensors/temp" or "inproc://jobs", with
 * an optional "@" (pull) or ">" (push) before it, stands for a FIFO in
 * /var/run/jactor that any thread or process on the machine can open.
 *
 *     JCXXSock* jobs = j_pipe_new_pull("@ipc://jobs");
 */

/* Opens the reading end (pull) or the writing end (push) of an endpoint, and
 * makes the run directory and the FIFO if they are missing; they are never
 * removed. Never waits for a partner. Use a sock in one direction only.
 *
 * A pull sock waits for ever where an actor's sock would see the end of the
 * stream, and a push sock blocks when the FIFO is full: each holds the FIFO
 * open both ways. When the last sock on an endpoint is destroyed, messages not
 * yet received are lost. One process reads an endpoint, for as long as the
 * endpoint is in use; several may write to it as long as each message is at most
 * PIPE_BUF bytes on the wire.
 *
 * Result:    the sock; null when `endpoint` is null (silently), is not a name
 *            as above, or the directory or the FIFO cannot be made or opened:
 *            the log has one line with the reason. A FIFO that belongs to
 *            another user cannot be opened without privileges. When two calls
 *            race to make the FIFO, one may fail; a second call succeeds. Nothing
 *            is opened once the process is ending.
 * Errors:    EINVAL for a string that is not a name, EPROTONOSUPPORT for another
 *            transport, EEXIST when another call made the FIFO first, ECANCELED
 *            when the process is ending, otherwise what the file system reported
 *            (EACCES, EPERM, ENAMETOOLONG, ENOSPC, EMFILE ...).
 * Ownership: the sock is the caller's: j_sock_destroy.
 * Threads:   the process's umask is 0 while a FIFO is being made. */
JACTOR_API JCXXSock* j_pipe_new_pull(const char* endpoint);
JACTOR_API JCXXSock* j_pipe_new_push(const char* endpoint);

/*
 * Event loops
 */

/* Makes the CZMQ loop `loop` call `handler(loop, sock, arg)` on its thread each
 * time `sock`'s descriptor is readable.
 *
 * A receive may take more than one message off the descriptor: a handler must
 * receive while j_sock_wait(sock, 0) is 1, or the messages that wait in the sock
 * stay unseen until more bytes arrive.
 *
 * Result:    0; non-zero with errno EINVAL when an argument is null or `sock` is
 *            not a live sock, EBADF when it has no read descriptor, ENOMEM when
 *            memory has run out or the loop refuses.
 * Ownership: `loop`, `sock` and `arg` stay the caller's. The sock must live
 *            until hybrid_zloop_reader_end. Only one loop may watch a sock: ending
 *            one registration ends all those of its descriptor, in every loop. */
JACTOR_API int hybrid_zloop_reader(zloop_t* loop, JCXXSock* sock, j_zloop_fn handler, void* arg);

/* Ends every registration of the sock's descriptor with `loop`. Does nothing
 * for a sock that has none. */
JACTOR_API void hybrid_zloop_reader_end(zloop_t* loop, JCXXSock* sock);

#ifdef __cplusplus
}
#endif

#endif
