// calls_fuzz.cpp - sequences of exported calls with live, stale, foreign, null and
// wrong-class handles: every result is the one that a model of the live objects
// foretells, and every refusal is logged.
//
// Each call takes one byte for the call and one for each argument.
#include <czmq.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fuzz/check.h"
#include "jcxxactorapi.h"
#include "jcxxframe.h"
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

// The two ways to name one stream: a sock, or an actor and the sock that it lends.
struct Stream {
  std::string pending;  // the bytes on their way to its reader
  std::string file;     // of an endpoint
  JCXXSock* lent = nullptr;
};

std::string Header(unsigned kind, std::size_t size) {
  return size < 16 ? std::string{static_cast<char>(kind | size)}
                   : std::string{static_cast<char>(kind | 0x10 | (size - 16) >> 8),
                                 static_cast<char>(size - 16)};
}

std::string Encode(const std::vector<std::string>& frames) {
  std::string bytes;
  std::size_t total = 0;
  for (const std::string& frame : frames) {
    bytes += Header(0, frame.size()) + frame;
    total += frame.size();
  }
  return frames.size() == 1 ? bytes : Header(0x40, total) + bytes;
}

class Session {
 public:
  Session(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  Session(Session const&) = delete;
  Session& operator=(Session const&) = delete;
  ~Session() { zloop_destroy(&loop_); }

  void Run() {
    while (at_ < size_) {
      const unsigned call = Byte() % 16;
      void* handle = handles_[Byte() % handles_.size()];
      if (handles_.size() < 200 && !BelongsToTheLibrary(handle)) {
        ForgetLog();
        Step(call, handle);
      }
    }
    ForgetLog();
    for (void* handle : handles_) {
      if (!BelongsToTheLibrary(handle)) {
        Destroy(msgs_.count(handle) != 0, j_msg_destroy, msgs_, handle);
        Destroy(frames_.count(handle) != 0, j_frame_destroy, frames_, handle);
        DestroyStream(handle);
      }
    }
    CHECK(msgs_.empty() && frames_.empty() && actors_.empty() && socks_.empty());
  }

 private:
  std::uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }

  template <class Object>
  Object* Keep(Object* made) {
    CHECK(made != nullptr);
    handles_.push_back(made);
    return made;
  }

  // Whether an old handle has become the address of an object that the library owns:
  // it would be taken for it, as the interface says.
  bool BelongsToTheLibrary(void* handle) {
    JCXXActorAPI* api = JCXXActorAPI::GetInstance();
    const std::lock_guard<std::mutex> lock(api->mutex);
    return (api->frames.count(static_cast<JCXXFrame*>(handle)) != 0 && !frames_.count(handle)) ||
           (api->socks.count(static_cast<JCXXSock*>(handle)) != 0 && !socks_.count(handle));
  }

  // A call worked exactly when it should; a refusal has its line, but a null handle
  // has none.
  static void Expect(bool should, bool worked, const void* handle) {
    CHECK(worked == should);
    CHECK(support::LogLines().empty() == (should || handle == nullptr));
    ForgetLog();
  }

  static void ForgetLog() {
    support::ClearLog();
    support::KeepLog(support::kErrors);
  }

  Stream* Find(void* handle) {
    const auto sock = socks_.find(handle);
    const auto actor = actors_.find(handle);
    return sock != socks_.end()     ? sock->second.get()
           : actor != actors_.end() ? actor->second.get()
                                    : nullptr;
  }

  template <class Object, class Map>
  void Destroy(bool live, void (*destroy)(Object**), Map& map, void* handle) {
    auto* object = static_cast<Object*>(handle);
    destroy(&object);
    Expect(live, map.erase(handle) != 0, handle);
    CHECK(object == nullptr);
  }

  void DestroyStream(void* handle) {
    Stream* stream = Find(handle);
    const bool actor = actors_.count(handle) != 0;
    if (stream == nullptr || stream->lent == handle) {
      return;  // a lent sock is not the caller's
    }
    JCXXSock* sock = actor ? stream->lent : static_cast<JCXXSock*>(handle);
    hybrid_zloop_reader_end(loop_, sock);
    ::unlink(stream->file.c_str());
    socks_.erase(sock);
    if (actor) {
      Destroy(true, j_actor_destroy, actors_, handle);
    } else {
      JCXXSock* own = sock;
      j_sock_destroy(&own);
      CHECK(own == nullptr && support::LogLines().empty());
    }
  }

  void MakeStream(bool actor) {
    static const support::RunDirectory run;
    auto stream = std::make_shared<Stream>();
    if (actor && actors_.size() < 2) {
      JCXXActor* made = Keep(j_actor_new(RawEcho, nullptr));
      stream->lent = Keep(j_actor_sock(made));
      actors_[made] = socks_[stream->lent] = stream;
    } else {
      const std::string name = std::to_string(++names_);
      stream->file = run.path("Jipc_" + name);
      socks_[Keep(j_pipe_new_pull(("ipc://" + name).c_str()))] = stream;
    }
  }

  void Build(void* handle) {
    const auto found = msgs_.find(handle);
    const bool live = found != msgs_.end() && signals_.count(handle) == 0;
    auto* msg = static_cast<JCXXMsg*>(handle);
    const std::string text(Byte(), 't');
    if (live && (found->second.size() == 40 || Encode(found->second).size() > 3000)) {
      return;
    }
    const bool mem = Byte() % 2 != 0;
    const int rc =
        mem ? j_msg_addmem(msg, text.data(), text.size()) : j_msg_addstr(msg, text.c_str());
    CHECK((rc == 0) == live);
    CHECK(live || handle == nullptr || found != msgs_.end() || !support::LogLines().empty());
    if (live) {
      found->second.push_back(text);
    }
    CHECK(j_msg_addstr(msg, nullptr) == -1 && j_msg_addmem(msg, nullptr, 0) == -1);
  }

  void TakeOut(void* handle, bool as_string) {
    const auto found = msgs_.find(handle);
    auto* msg = static_cast<JCXXMsg*>(handle);
    const bool some = found != msgs_.end() && !found->second.empty();
    std::string bytes;
    if (as_string) {
      char* text = j_msg_popstr(msg);
      CHECK((text != nullptr) == some);
      bytes = text != nullptr ? text : "";
      std::free(text);
    } else {
      JCXXFrame* frame = j_msg_pop(msg);
      CHECK((frame != nullptr) == some);
      if (frame != nullptr) {
        bytes = frames_[Keep(frame)] = found->second.front();
      }
    }
    if (some) {
      CHECK(bytes == found->second.front());
      found->second.erase(found->second.begin());
    } else {
      Expect(found != msgs_.end(), found != msgs_.end(), handle);
    }
  }

  void Look(void* handle) {
    auto* frame = static_cast<JCXXFrame*>(handle);
    const auto found = frames_.find(handle);
    const std::size_t size = j_frame_size(frame);
    Expect(found != frames_.end(), found != frames_.end(), handle);
    const unsigned char* bytes = j_frame_data(frame);
    const std::string expected = found != frames_.end() ? found->second : "";
    CHECK(size == expected.size() && (bytes == nullptr) == (size == 0));
    CHECK(size == 0 || expected.compare(0, size, reinterpret_cast<const char*>(bytes), size) == 0);
  }

  void Send(void* handle, void* dest) {
    const auto found = msgs_.find(handle);
    Stream* stream = Find(dest);
    if (BelongsToTheLibrary(dest) || (stream != nullptr && stream->pending.size() > 30000)) {
      return;
    }
    auto* msg = static_cast<JCXXMsg*>(handle);
    const bool should = found != msgs_.end() && stream != nullptr;
    Expect(should, j_msg_send(&msg, dest) == 0,
           handle == nullptr || dest == nullptr ? nullptr : handle);
    CHECK(msg == (should ? nullptr : handle));
    if (should) {
      const auto signal = signals_.find(handle);
      stream->pending += signal != signals_.end() ? signal->second : Encode(found->second);
      msgs_.erase(found);
      signals_.erase(handle);
    }
  }

  void Receive(void* source) {
    Stream* stream = Find(source);
    if (stream != nullptr && stream->pending.empty()) {
      return;  // it would wait for ever
    }
    JCXXMsg* msg = j_msg_recv(source);
    Expect(stream != nullptr, msg != nullptr, source);
    if (msg == nullptr) {
      return;
    }
    std::size_t at = 0;
    const wire::Message expected = wire::DecodeMessage(stream->pending, at);
    CHECK(j_msg_signal(msg) == expected.signal);
    msgs_[Keep(msg)] = expected.frames;
    if (expected.signal >= 0) {
      signals_[msg] = stream->pending.substr(0, at);
    }
    stream->pending.erase(0, at);
  }

  void Ask(void* handle, unsigned char value) {
    Stream* stream = Find(handle);
    Expect(stream != nullptr, j_sock_fd(handle) >= 0, handle);
    const std::size_t buffered = j_sock_buffered(handle);
    CHECK(stream == nullptr ? buffered == 0 : buffered <= stream->pending.size());
    CHECK((j_sock_signal(handle, value) == 0) == (stream != nullptr));
    if (stream != nullptr) {
      stream->pending += value < 64 ? std::string{static_cast<char>(0x80 | value)}
                                    : std::string{'\xC0', static_cast<char>(value)};
    }
  }

  void Watch(void* handle) {
    auto* sock = static_cast<JCXXSock*>(handle);
    const auto handler = [](zloop_t*, j_sock_t*, void*) { return -1; };
    const bool live = socks_.count(handle) != 0;
    Expect(live, hybrid_zloop_reader(loop_, sock, handler, nullptr) == 0, handle);
    CHECK(hybrid_zloop_reader(loop_, sock, nullptr, nullptr) == -1);
    CHECK(hybrid_zloop_reader(nullptr, sock, handler, nullptr) == -1);
  }

  void Step(unsigned call, void* handle) {
    switch (call) {
      case 0:
        msgs_[Keep(j_msg_new())];
        break;
      case 1:
        signals_.erase(handle);
        Destroy(msgs_.count(handle) != 0, j_msg_destroy, msgs_, handle);
        break;
      case 2:
      case 3:
        Build(handle);
        break;
      case 4:
      case 5:
        TakeOut(handle, call == 4);
        break;
      case 6:
        CHECK(j_msg_signal(static_cast<JCXXMsg*>(handle)) == -1 || signals_.count(handle) != 0);
        break;
      case 7:
        Destroy(frames_.count(handle) != 0, j_frame_destroy, frames_, handle);
        break;
      case 8:
        Look(handle);
        break;
      case 9:
        MakeStream(Byte() % 4 == 0);
        break;
      case 10:
        Find(handle) != nullptr ? DestroyStream(handle)
                                : Destroy(false, j_sock_destroy, socks_, handle);
        break;
      case 11:
        if (Find(handle) == nullptr) {
          Destroy(false, j_actor_destroy, actors_, handle);
        }
        CHECK((j_actor_sock(static_cast<JCXXActor*>(handle)) != nullptr) ==
              (actors_.count(handle) != 0));
        break;
      case 12:
        Send(handle, handles_[Byte() % handles_.size()]);
        break;
      case 13:
        Receive(handle);
        break;
      case 14:
        Ask(handle, Byte());
        break;
      default:
        Watch(handle);
    }
  }

  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
  int names_ = 0;
  zloop_t* loop_ = zloop_new();
  std::vector<void*> handles_ = {nullptr, &names_, this, loop_};  // dead ones stay
  std::map<void*, std::vector<std::string>> msgs_;                // the frames of each
  std::map<void*, std::string> signals_;                          // those that are one
  std::map<void*, std::string> frames_;
  std::map<void*, std::shared_ptr<Stream>> socks_;
  std::map<void*, std::shared_ptr<Stream>> actors_;
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
