// asio.cpp - an endpoint and a worker actor in an asio loop, with a timer, until SIGTERM
//
// Prints the first message of the endpoint argv[1]. The worker handles the others, one at a time.
#include <asio.hpp>
#include <chrono>
#include <csignal>
#include <iostream>
#include <jactor_asio.hpp>

using jactor::Message;
using jactor::SockRef;

namespace {

// The actor: adds a frame to each message, and sends a signal back unchanged.
void work(SockRef sock) {
  sock.ready();
  while (auto message = sock.receive()) {
    if (!message->signal()) {
      message->add("done");
    }
    sock.send(std::move(*message));
  }
}

void print(const char* what, Message message) {
  std::cout << what << ':';
  for (jactor::Frame& frame : message.frames()) {
    std::cout << ' ' << frame.text();
  }
  std::cout << std::endl;
}

// A receive also takes what was read ahead, and half a message does not hold up the loop.
asio::awaitable<void> serve(SockRef jobs, const jactor::Actor& worker) {
  while (auto job = co_await jactor::async_receive(jobs, asio::use_awaitable)) {
    co_await jactor::async_send(worker, std::move(*job), asio::use_awaitable);
    auto answer = co_await jactor::async_receive(worker, asio::use_awaitable);
    print("answer", std::move(answer.value()));  // empty only if the worker had ended
  }
}

asio::awaitable<void> tick() {
  asio::steady_timer timer(co_await asio::this_coro::executor);
  for (;;) {
    timer.expires_after(std::chrono::milliseconds(10));
    co_await timer.async_wait(asio::use_awaitable);
    std::cout << "tick" << std::endl;
  }
}

// Lets a coroutine's exception leave the loop.
void pass_on(std::exception_ptr thrown) {
  if (thrown) {
    std::rethrow_exception(thrown);
  }
}

void run(const char* endpoint) {
  auto jobs = jactor::Sock::pull(endpoint);
  jactor::Actor worker(work);
  print("title", jobs.receive().value());  // reads ahead up to 16 KiB more
  asio::io_context loop;
  asio::signal_set sigterm(loop, SIGTERM);
  sigterm.async_wait([&](asio::error_code, int) { loop.stop(); });
  asio::co_spawn(loop, serve(jobs, worker), pass_on);
  asio::co_spawn(loop, tick(), pass_on);
  loop.run();
}

}  // namespace

int main(int argc, char** argv) {
  int status = EXIT_SUCCESS;
  try {
    run(argc == 2 ? argv[1] : "");
  } catch (const std::exception& failure) {  // bytes that are not a message, for one
    std::cerr << "asio: " << failure.what() << '\n';
    status = EXIT_FAILURE;
  }
  std::cout << "stopped" << std::endl;
  return status;
}
