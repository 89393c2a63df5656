// cancellation.h - no cancellation while a destructor works.
#ifndef JACTOR_CANCELLATION_H
#define JACTOR_CANCELLATION_H

#include <pthread.h>

// Disables the cancellation of this thread while it lives. Destructors close
// descriptors, join threads and log, all of which may be cancellation points, and a
// cancellation that leaves a destructor ends the process.
class NoCancellation {
 public:
  NoCancellation() { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  NoCancellation(NoCancellation const&) = delete;
  NoCancellation& operator=(NoCancellation const&) = delete;
  ~NoCancellation() { ::pthread_setcancelstate(before_, nullptr); }

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

#endif
