// reason.h - how the reason for a failure gets from the code that knows it to errno.
//
// The code that knows why a call fails says so with Fail(), when it is certain that the
// call fails: a failed step that is repeated has no reason. A call that only works in
// memory needs no more: its successes do not touch errno. A call that makes system calls
// has a Scope around it, since they change errno even when all ends well, and log lines
// may follow the failure: the thread keeps the reason, and the Scope puts it into errno
// at the end, or leaves errno as it was. If a log sink or a handler calls the library
// inside such a call, the inner call's reason is kept apart.
#ifndef JACTOR_REASON_H
#define JACTOR_REASON_H

#include <cerrno>
#include <utility>

namespace reason {

inline constexpr int kNone = -1;

[[gnu::tls_model("initial-exec")]] inline constinit thread_local int why = kNone;

// Says why the call fails: a value of errno, or 0 at the end of the stream. Result: -1,
// for callers that return that.
inline int Fail(int error) {
  why = error;
  errno = error;
  return -1;
}

// The stream has ended, or a read has failed, inside a message. There an end is damage.
inline void EndIsDamage() {
  if (why <= 0) {
    why = EBADMSG;
  }
}

// The step that could have failed succeeded after all.
inline void Clear() { why = kNone; }

// Goes around a call that makes system calls, from beginning to end.
class Scope {
 public:
  Scope() : before_(errno), outer_(std::exchange(why, kNone)) {}
  Scope(Scope const&) = delete;
  Scope& operator=(Scope const&) = delete;
  ~Scope() {
    const int reason = std::exchange(why, outer_);
    errno = reason == kNone ? before_ : reason;
  }

 private:
  int before_;
  int outer_;
};

}  // namespace reason

#endif
