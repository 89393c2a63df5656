// jcxxactorapi.cpp - the registry of live objects, the members behind the
// exported calls, and the bridge into a CZMQ event loop.
//
// Every member tests its arguments in a fixed order, logs the first failed test
// and returns its failure result; only then does it touch the object.
#include "jcxxactorapi.h"

#include <czmq.h>

#include <cerrno>
#include <limits>
#include <memory>

#include "jcxxactor.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "log.h"
#include "reason.h"
#include "registry.h"

namespace {

// The log lines of one family of the registry.
struct FamilyLines {
  const char* null_on_valid;
  const char* null_on_add;
  const char* duplicate;
  const char* null_on_remove;
  const char* missing;
};

#define JACTOR_FAMILY_LINES(Class)                               \
  FamilyLines {                                                  \
    JACTOR_LINE("NULL " #Class " pointer passed to interface"),  \
        JACTOR_LINE("NULL " #Class " pointer passed to add"),    \
        JACTOR_LINE(#Class " pointer already exists"),           \
        JACTOR_LINE("NULL " #Class " pointer passed to remove"), \
        JACTOR_LINE(#Class " pointer does not exist")            \
  }

constexpr auto kSocks = JACTOR_FAMILY_LINES(JCXXSock);
constexpr auto kActors = JACTOR_FAMILY_LINES(JCXXActor);
constexpr auto kFrames = JACTOR_FAMILY_LINES(JCXXFrame);
constexpr auto kMsgs = JACTOR_FAMILY_LINES(JCXXMsg);

void LogPointer(const char* function, const char* format) {
  JACTOR_LOG_FORMAT(JACTOR_LEVEL_ERROR, function, format);
}

template <class Object>
bool IsValid(JCXXActorAPI& api, const FamilyLines& lines, Object* p, const char* function) {
  if (p == nullptr) {
    LogPointer(function, lines.null_on_valid);
    return false;
  }
  return registry::Ask(api, p);
}

template <class Object>
void Add(JCXXActorAPI& api, const FamilyLines& lines, Object* p, const char* function) {
  if (p == nullptr) {
    LogPointer(function, lines.null_on_add);
    return;
  }
  registry::Enter(api, p, [&] { LogPointer(function, lines.duplicate); });
}

template <class Object>
void Remove(JCXXActorAPI& api, const FamilyLines& lines, Object* p, const char* function) {
  if (p == nullptr) {
    LogPointer(function, lines.null_on_remove);
    return;
  }
  registry::Leave(api, p, [&] { LogPointer(function, lines.missing); });
}

// The tests of one call's arguments, in the order in which the call makes them. Each logs
// its line when it fails.
class Arguments {
 public:
  constexpr Arguments(JCXXActorAPI& api, const char* function, const char* null_line,
                      const char* invalid_line)
      : api_(api), function_(function), null_line_(null_line), invalid_line_(invalid_line) {}

  // Whether the pointer is not null.
  bool Given(const void* p) const { return p != nullptr || Refused(null_line_); }
  bool Given(const void* p, const char* null_line) const {
    return p != nullptr || Refused(null_line);
  }

  // Whether a pointer, which is not null, is a live object.
  bool Live(JCXXMsg* p) const { return api_.JCXXMsgPtrIsValid(p) || Refused(invalid_line_); }
  bool Live(JCXXFrame* p) const { return api_.JCXXFramePtrIsValid(p) || Refused(invalid_line_); }
  bool Live(JCXXSock* p) const { return api_.JCXXSockPtrIsValid(p) || Refused(invalid_line_); }
  bool Live(JCXXActor* p) const { return api_.JCXXActorPtrIsValid(p) || Refused(invalid_line_); }

  // A handle: both.
  template <class Object>
  bool Handle(Object* p) const {
    return Given(p) && Live(p);
  }

 private:
  // Not inlined: a call with good arguments does not get here.
  [[gnu::noinline]] bool Refused(const char* line) const {
    LogPointer(function_, line);
    reason::Fail(EINVAL);
    return false;
  }

  JCXXActorAPI& api_;
  const char* function_;
  const char* null_line_;
  const char* invalid_line_;
};
#define JACTOR_ARGUMENTS(call)                                                          \
  const Arguments arguments(*this, #call, JACTOR_LINE("NULL pointer passed to " #call), \
                            JACTOR_LINE("invalid pointer passed to " #call))

// Deletes `*p` and nulls it, when it is a handle.
template <class Object>
void Destroy(const Arguments& arguments, Object** p) {
  if (arguments.Given(p) && arguments.Handle(*p)) {
    delete *p;
    *p = nullptr;
  }
}

// Gets `sock`'s read descriptor. Result: 0 and `fd` not negative, or what the
// sock returns, or -1.
int ReadDescriptor(JCXXSock* sock, int& fd) {
  fd = -1;
  if (const int rc = sock->GetReadFD(fd); rc != 0 || fd < 0) {
    reason::Fail(EBADF);
    return rc != 0 ? rc : -1;
  }
  return 0;
}

zmq_pollitem_t PollItem(int fd) {
  zmq_pollitem_t item = {};
  item.fd = fd;
  item.events = ZMQ_POLLIN;
  return item;
}

// What the loop calls: passes the event to the caller's handler.
int hybrid_internal_handler(zloop_t* loop, zmq_pollitem_t* item, void* arg) {
  JACTOR_TRACE("hybrid_internal_handler");
  if (loop == nullptr || item == nullptr || arg == nullptr) {
    JACTOR_ERROR("NULL pointer passed to hybrid_internal_handler");
    return -1;
  }
  const auto* record = static_cast<const hybrid_poller_info*>(arg);
  const int irv = record->handler(loop, record->sock, record->arg);
  JACTOR_TRACE("irv=%d", irv);
  return irv;
}

}  // namespace

JCXXActorAPI* JCXXActorAPI::GetInstance() { return &registry::Api(); }

// The registrations are few and always searched from the first to the last: they need no
// buckets, so inserting a prepared entry allocates nothing.
JCXXActorAPI::JCXXActorAPI() { pollers.max_load_factor(std::numeric_limits<float>::max()); }

JCXXActorAPI::JCXXActorAPI(JCXXActorAPI const& /*other*/) {
  JACTOR_TRACE("JCXXActorAPI private copy constructor");
}

JCXXActorAPI& JCXXActorAPI::operator=(JCXXActorAPI const& /*other*/) {
  JACTOR_TRACE("JCXXActorAPI private copy assignment operator");
  return *this;
}

JCXXActorAPI::~JCXXActorAPI() {
  const std::lock_guard<std::mutex> lock(mutex);
  pollers.clear();
  msgs.clear();
  frames.clear();
  actors.clear();
  socks.clear();
}

bool JCXXActorAPI::JCXXSockPtrIsValid(JCXXSock* p) { return IsValid(*this, kSocks, p, __func__); }
void JCXXActorAPI::JCXXSockPtrAdd(JCXXSock* p) { Add(*this, kSocks, p, __func__); }
void JCXXActorAPI::JCXXSockPtrRemove(JCXXSock* p) { Remove(*this, kSocks, p, __func__); }

bool JCXXActorAPI::JCXXActorPtrIsValid(JCXXActor* p) {
  return IsValid(*this, kActors, p, __func__);
}
void JCXXActorAPI::JCXXActorPtrAdd(JCXXActor* p) { Add(*this, kActors, p, __func__); }
void JCXXActorAPI::JCXXActorPtrRemove(JCXXActor* p) { Remove(*this, kActors, p, __func__); }

bool JCXXActorAPI::JCXXFramePtrIsValid(JCXXFrame* p) {
  return IsValid(*this, kFrames, p, __func__);
}
void JCXXActorAPI::JCXXFramePtrAdd(JCXXFrame* p) { Add(*this, kFrames, p, __func__); }
void JCXXActorAPI::JCXXFramePtrRemove(JCXXFrame* p) { Remove(*this, kFrames, p, __func__); }

bool JCXXActorAPI::JCXXMsgPtrIsValid(JCXXMsg* p) { return IsValid(*this, kMsgs, p, __func__); }
void JCXXActorAPI::JCXXMsgPtrAdd(JCXXMsg* p) { Add(*this, kMsgs, p, __func__); }
void JCXXActorAPI::JCXXMsgPtrRemove(JCXXMsg* p) { Remove(*this, kMsgs, p, __func__); }

JCXXMsg* JCXXActorAPI::j_msg_new() { return new JCXXMsg(); }

void JCXXActorAPI::j_msg_destroy(JCXXMsg** p) {
  JACTOR_ARGUMENTS(j_msg_destroy);
  Destroy(arguments, p);
}

int JCXXActorAPI::j_msg_addstr(JCXXMsg* m, const char* s) {
  JACTOR_ARGUMENTS(j_msg_addstr);
  return arguments.Given(m) && arguments.Given(s) && arguments.Live(m) ? m->AddStr(s) : -1;
}

int JCXXActorAPI::j_msg_addmem(JCXXMsg* m, const void* data, std::size_t size) {
  JACTOR_ARGUMENTS(j_msg_addmem);
  const bool good = arguments.Given(m) && arguments.Given(data) && arguments.Live(m);
  return good ? m->AddMem(data, size) : -1;
}

JCXXFrame* JCXXActorAPI::j_msg_pop(JCXXMsg* m) {
  JACTOR_ARGUMENTS(j_msg_pop);
  return arguments.Handle(m) ? m->Pop() : nullptr;
}

char* JCXXActorAPI::j_msg_popstr(JCXXMsg* m) {
  JACTOR_ARGUMENTS(j_msg_popstr);
  return arguments.Handle(m) ? m->PopStr() : nullptr;
}

int JCXXActorAPI::j_msg_signal(JCXXMsg* m) {
  JACTOR_ARGUMENTS(j_msg_signal);
  return arguments.Handle(m) && m->IsSignalMsg() ? m->GetSignalValue() : -1;
}

void JCXXActorAPI::j_frame_destroy(JCXXFrame** p) {
  JACTOR_ARGUMENTS(j_frame_destroy);
  Destroy(arguments, p);
}

unsigned char* JCXXActorAPI::j_frame_data(JCXXFrame* f) {
  JACTOR_ARGUMENTS(j_frame_data);
  return arguments.Handle(f) ? f->GetData() : nullptr;
}

std::size_t JCXXActorAPI::j_frame_size(JCXXFrame* f) {
  JACTOR_ARGUMENTS(j_frame_size);
  return arguments.Handle(f) ? f->GetSize() : 0;
}

JCXXActor* JCXXActorAPI::j_actor_new(void (*fn)(j_sock_t*, void*), void* args) {
  JACTOR_ARGUMENTS(j_actor_new);
  return arguments.Given(reinterpret_cast<const void*>(fn)) ? new JCXXActor(fn, args) : nullptr;
}

void JCXXActorAPI::j_actor_destroy(JCXXActor** p) {
  JACTOR_ARGUMENTS(j_actor_destroy);
  if (arguments.Given(p) &&
      arguments.Given(*p, JACTOR_LINE("NULL pointer passed to j_actor_destroy 2"))) {
    Destroy(arguments, p);
  }
}

JCXXSock* JCXXActorAPI::j_actor_sock(JCXXActor* a) {
  JACTOR_ARGUMENTS(j_actor_sock);
  return arguments.Handle(a) ? a->GetSock() : nullptr;
}

void JCXXActorAPI::j_sock_destroy(JCXXSock** p) {
  JACTOR_ARGUMENTS(j_sock_destroy);
  Destroy(arguments, p);
}

int JCXXActorAPI::j_msg_send(JCXXMsg** pm, JCXXSock* s) {
  JACTOR_ARGUMENTS(j_msg_send);
  const bool good = arguments.Given(pm) && arguments.Handle(*pm) && arguments.Handle(s);
  return good ? s->Send(pm) : -1;
}

int JCXXActorAPI::j_msg_send(JCXXMsg** pm, JCXXActor* a) {
  JACTOR_ARGUMENTS(j_msg_send);
  const bool good = arguments.Given(pm) && arguments.Handle(*pm) && arguments.Handle(a);
  return good ? j_msg_send(pm, a->GetSock()) : -1;
}

JCXXMsg* JCXXActorAPI::j_msg_recv(JCXXSock* s) {
  JACTOR_ARGUMENTS(j_msg_recv);
  return arguments.Handle(s) ? s->Recv() : nullptr;
}

JCXXMsg* JCXXActorAPI::j_msg_recv(JCXXActor* a) {
  JACTOR_ARGUMENTS(j_msg_recv);
  return arguments.Handle(a) ? j_msg_recv(a->GetSock()) : nullptr;
}

int JCXXActorAPI::j_sock_signal(JCXXSock* s, unsigned char value) {
  JACTOR_ARGUMENTS(j_sock_signal);
  if (!arguments.Handle(s)) {
    return -1;
  }
  const int rc = JCXXMsg::WriteSignalMessage(s, value);
  JACTOR_TRACE("j_sock_signal sock, rc=%d", rc);
  return rc;
}

int JCXXActorAPI::j_sock_signal(JCXXActor* a, unsigned char value) {
  JACTOR_ARGUMENTS(j_sock_signal);
  if (!arguments.Handle(a)) {
    return -1;
  }
  const int rc = j_sock_signal(a->GetSock(), value);
  JACTOR_TRACE("j_sock_signal actor, rc=%d", rc);
  return rc;
}

int JCXXActorAPI::j_sock_fd(JCXXSock* s) {
  JACTOR_ARGUMENTS(j_sock_fd);
  int fd = -1;
  return arguments.Handle(s) && ReadDescriptor(s, fd) == 0 ? fd : -1;
}

int JCXXActorAPI::j_sock_fd(JCXXActor* a) {
  JACTOR_ARGUMENTS(j_sock_fd);
  return arguments.Handle(a) ? j_sock_fd(a->GetSock()) : -1;
}

std::size_t JCXXActorAPI::j_sock_buffered(JCXXSock* s) {
  JACTOR_ARGUMENTS(j_sock_buffered);
  return arguments.Handle(s) ? s->BufferedToRead() : 0;
}

std::size_t JCXXActorAPI::j_sock_buffered(JCXXActor* a) {
  JACTOR_ARGUMENTS(j_sock_buffered);
  return arguments.Handle(a) ? j_sock_buffered(a->GetSock()) : 0;
}

int JCXXActorAPI::j_sock_wait(JCXXSock* s, int milliseconds) {
  JACTOR_ARGUMENTS(j_sock_wait);
  return arguments.Handle(s) ? s->WaitForMessage(milliseconds) : -1;
}

int JCXXActorAPI::j_sock_wait(JCXXActor* a, int milliseconds) {
  JACTOR_ARGUMENTS(j_sock_wait);
  return arguments.Handle(a) ? j_sock_wait(a->GetSock(), milliseconds) : -1;
}

JCXXSock* JCXXActorAPI::j_pipe_new_pull(char const* name) { return JCXXSock::NewPull(name); }

JCXXSock* JCXXActorAPI::j_pipe_new_push(char const* name) { return JCXXSock::NewPush(name); }

int JCXXActorAPI::hybrid_zloop_reader(zloop_t* loop, JCXXSock* sock,
                                      int (*handler)(zloop_t*, j_sock_t*, void*), void* arg) {
  JACTOR_TRACE("hybrid_zloop_reader");
  JACTOR_ARGUMENTS(hybrid_zloop_reader);
  if (!arguments.Given(loop) || !arguments.Handle(sock) ||
      !arguments.Given(reinterpret_cast<const void*>(handler))) {
    return -1;
  }
  int fd = -1;
  if (const int rc = ReadDescriptor(sock, fd); rc != 0) {
    return rc;
  }
  auto record = std::make_unique<hybrid_poller_info>(hybrid_poller_info{handler, arg, sock});
  // The set's entry is made before the loop knows of the record, so that nothing
  // but the lock can fail once it does.
  std::unordered_set<hybrid_poller_info*> entry{record.get()};
  zmq_pollitem_t item = PollItem(fd);
  if (zloop_poller(loop, &item, hybrid_internal_handler, record.get()) != 0) {
    return reason::Fail(ENOMEM);  // it has no other reason
  }
  hybrid_poller_info* registered = record.release();
  if (!process::Gone()) {
    const process::CriticalSection section(mutex);
    pollers.insert(entry.extract(registered));
  }
  return 0;
}

void JCXXActorAPI::hybrid_zloop_reader_end(zloop_t* loop, JCXXSock* sock) {
  JACTOR_TRACE("hybrid_zloop_reader_end");
  JACTOR_ARGUMENTS(hybrid_zloop_reader_end);
  int fd = -1;
  if (!arguments.Given(loop) || !arguments.Handle(sock) || ReadDescriptor(sock, fd) != 0) {
    return;
  }
  zmq_pollitem_t item = PollItem(fd);
  zloop_poller_end(loop, &item);
  if (process::Gone()) {
    return;
  }
  const process::CriticalSection section(mutex);
  for (auto next = pollers.begin(); next != pollers.end();) {
    hybrid_poller_info* record = *next;
    int watched = -1;
    // A sock that was destroyed despite its registration is not asked. One that has no
    // descriptor now does not make the call fail.
    if (socks.count(record->sock) != 0 && ReadDescriptor(record->sock, watched) == 0 &&
        watched == fd) {
      next = pollers.erase(next);
      delete record;
    } else {
      ++next;
    }
  }
  reason::Clear();
}
