// calls_fuzz.cpp - sequences of exported calls with live, stale, foreign, null and
// wrong-class handles: a good call succeeds, a bad one is refused in one line and
// changes nothing.
//
// Each call takes four bytes: which one, its handle, the other handle, and how long
// its text is.
#include <czmq.h>
#include <unistd.h>

#include <csignal>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

#include "calls.h"
#include "jcxxactorapi.h"
#include "support.h"
#include "sweep/wire_model.h"

namespace {

// Sends back what comes. It makes no object of the library: a stale handle could
// mean one that belongs to the actor.
void RawEcho(j_sock_t* sock, void*) {
  int in = -1;
  int out = -1;
  sock->GetReadFD(in);
  sock->GetWriteFD(out);
  char bytes[4096] = {'\x80'};
  for (ssize_t n = 1; n > 0; n = ::read(in, bytes, sizeof bytes)) {
    CHECK(::write(out, bytes, static_cast<std::size_t>(n)) == n || errno == EPIPE);
  }
}

struct Stream {
  JCXXSock* sock;                     // an actor has lent it when there is no file
  std::string file;                   // of an endpoint
  std::deque<wire::Message> pending;  // on their way to its reader
};

struct Object {
  char kind;                       // as in calls.h
  std::shared_ptr<Stream> stream;  // of a sock or an actor
  wire::Message content;           // of a message; a frame is the only one of its own
};

class Session {
 public:
  Session(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  Session(Session const&) = delete;
  Session& operator=(Session const&) = delete;
  ~Session() { zloop_destroy(&loop_); }

  void Run() {
    constexpr std::size_t kCount = std::size(calls::kCalls);
    while (at_ < size_ && handles_.size() < 200) {
      const std::size_t which = Byte() % (kCount + 3);
      void* handle = Pick();
      rest_ = {Pick(), loop_, std::string(Byte(), static_cast<char>('a' + at_ % 26)), nullptr};
      if (which < kCount) {
        Try(calls::kCalls[which], handle);
      } else {
        Make(which - kCount);
      }
      CheckContents();
    }
    for (const calls::Call& call : calls::kCalls) {
      const bool destroys = std::string_view(call.name).ends_with("_destroy");
      for (std::size_t i = 0; destroys && i < handles_.size(); ++i) {
        Try(call, handles_[i]);
      }
    }
    CHECK(live_.empty());
  }

 private:
  std::uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
  void* Pick() { return handles_[Byte() % handles_.size()]; }

  void Keep(void* made, Object object) {
    CHECK(made != nullptr && live_.emplace(made, std::move(object)).second);
    handles_.push_back(made);
  }

  void Make(std::size_t kind) {
    static const support::RunDirectory run;
    const auto stream = std::make_shared<Stream>();
    if (kind == 0) {
      Keep(j_msg_new(), {'m', nullptr, {true, -1, {}}});
    } else if (kind == 1 && actors_ < 2) {
      ++actors_;
      JCXXActor* actor = j_actor_new(RawEcho, nullptr);
      stream->sock = j_actor_sock(actor);
      Keep(actor, {'a', stream, {}});
      Keep(stream->sock, {'s', stream, {}});
    } else {
      const std::string name = std::to_string(at_);
      stream->file = run.path("Jipc_" + name);
      stream->sock = j_pipe_new_pull(("ipc://" + name).c_str());
      Keep(stream->sock, {'s', stream, {}});
    }
  }

  Object* Find(char takes, void* handle) {
    const auto found = live_.find(handle);
    const bool fits = found != live_.end() && calls::Fits(takes, found->second.kind);
    return fits ? &found->second : nullptr;
  }

  // Whether an old handle has become the address of an object that the library owns:
  // it would be taken for it, as the interface says.
  bool BelongsToTheLibrary(void* handle) {
    JCXXActorAPI* api = JCXXActorAPI::GetInstance();
    const std::lock_guard<std::mutex> lock(api->mutex);
    return live_.count(handle) == 0 && (api->frames.count(calls::Handle{handle}) != 0 ||
                                        api->socks.count(calls::Handle{handle}) != 0);
  }

  void Try(const calls::Call& call, void* handle) {
    const bool sends = std::string_view(call.name) == "j_msg_send";
    Object* object = Find(call.takes, handle);
    Object* other = sends ? Find(call.takes == 'm' ? 'e' : 'm', rest_.other) : object;
    support::ClearLog();
    support::KeepLog(support::kErrors);
    if (object == nullptr || other == nullptr) {
      if (!BelongsToTheLibrary(handle) && !BelongsToTheLibrary(rest_.other)) {
        const bool silent = handle == nullptr || (sends && rest_.other == nullptr);
        CHECK(call.fails({handle}, rest_));
        CHECK(support::LogLines().size() == (silent ? 0U : 1U));
      }
    } else if (call.takes != 'e' || !sends) {  // which are one call
      Use(call, handle, object->content, other->stream);
    }
  }

  // A call on good handles, unless it would block or end what an actor has lent.
  void Use(const calls::Call& call, void* handle, wire::Message& content,
           const std::shared_ptr<Stream> stream) {
    const std::string_view name = call.name;
    if ((name == "j_msg_recv" && stream->pending.empty()) ||
        ((name == "j_msg_send" || name == "j_sock_signal") && stream->pending.size() == 3) ||
        (name.starts_with("j_msg_add") && content.frames.size() == 20) ||
        (name == "j_sock_destroy" && stream->file.empty())) {
      return;
    }
    if (name.ends_with("_destroy") && stream != nullptr) {
      hybrid_zloop_reader_end(loop_, stream->sock);
      ::unlink(stream->file.c_str());
      live_.erase(stream->sock);
    }
    const bool should_fail = ShouldFail(name, content);
    const bool failed = call.fails({handle}, rest_);
    CHECK(failed == should_fail || (name == "j_sock_buffered" && !stream->pending.empty()));
    CHECK(support::LogLines().empty());
    if (name.ends_with("_destroy")) {
      live_.erase(handle);
    } else if (!failed) {
      Follow(name, handle, content, stream.get());
    }
  }

  static bool ShouldFail(std::string_view name, const wire::Message& content) {
    return name.ends_with("_destroy") || name == "hybrid_zloop_reader_end" ||  // tell nothing
           name == "j_sock_buffered" || (name == "j_msg_signal" && content.signal < 0) ||
           (name.starts_with("j_msg_add") && content.signal >= 0) ||
           (name.starts_with("j_msg_pop") && content.frames.empty()) ||
           (name.starts_with("j_frame_") && content.frames[0].empty());
  }

  // What the call has done, done to the model.
  void Follow(std::string_view name, void* handle, wire::Message& content, Stream* stream) {
    if (name.starts_with("j_msg_add")) {
      content.frames.push_back(rest_.text);
    } else if (name == "j_msg_popstr") {
      CHECK(content.frames[0] == static_cast<char*>(rest_.made));
      std::free(rest_.made);
      content.frames.erase(content.frames.begin());
    } else if (name == "j_msg_pop") {
      Keep(rest_.made, {'f', nullptr, {true, -1, {content.frames[0]}}});
      content.frames.erase(content.frames.begin());
    } else if (name == "j_msg_send") {
      stream->pending.push_back(content);
      live_.erase(handle);
    } else if (name == "j_msg_recv") {
      Keep(rest_.made, {'m', nullptr, stream->pending.front()});
      stream->pending.pop_front();
    } else if (name == "j_sock_signal") {
      stream->pending.push_back({true, static_cast<int>(rest_.text.size()), {}});
    } else if (name == "j_actor_sock") {
      CHECK(rest_.made == stream->sock);
    }
  }

  void CheckContents() {
    for (const auto& [handle, object] : live_) {
      if (object.kind == 'm') {
        CHECK(wire::Contents(calls::Handle{handle}) == object.content);
      } else if (object.kind == 'f') {
        CHECK(wire::Bytes(*static_cast<JCXXFrame*>(handle)) == object.content.frames[0]);
      }
    }
  }

  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
  int actors_ = 0;
  zloop_t* loop_ = zloop_new();
  std::vector<void*> handles_ = {nullptr, &actors_, this, loop_};  // dead ones stay
  std::map<void*, Object> live_;
  calls::Rest rest_ = {};
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A sanitizer's own thread starts with the first one.
  static const bool ready = (std::thread([] {}).join(), std::signal(SIGPIPE, SIG_IGN), true);
  CHECK(ready);
  const support::Census before = support::TakeCensus();
  Session(data, size).Run();
  CHECK(support::LeftSince(before).empty());
  return 0;
}
