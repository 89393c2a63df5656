// reason.h - how the reason of a failure gets from the place that knows it to errno.
//
// The place that knows why a call fails says so with Fail(), at the moment in which the
// failure is decided: a failed step that is repeated has no reason. A call that works in
// memory needs no more: its successes do not touch errno. A call that makes system calls
// has a Scope around it, since they change errno also where all ends well, and lines of
// the log may follow the failure: the thread keeps the reason, and the Scope puts it into
// errno at the end, or leaves errno as it was. A call inside such a call, made by a log or
// a handler, keeps the reasons apart.
#ifndef JACTOR_REASON_H
#define JACTOR_REASON_H

#include <cerrno>
#include <utility>

namespace reason {

inline constexpr int kNone = -1;

[[gnu::tls_model("initial-exec")]] inline constinit thread_local int why = kNone;

// Says why the call fails: a value of errno, or 0 at the end of the stream. Result: -1,
// for those who return that.
inline int Fail(int error) {
  why = error;
  errno = error;
  return -1;
}

// The stream has ended, or a read has failed, inside a message: an end is damage there.
inline void EndIsDamage() {
  if (why <= 0) {
    why = EBADMSG;
  }
}

// The part that could have failed did not.
inline void Clear() { why = kNone; }

// A call with system calls, from beginning to end.
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
