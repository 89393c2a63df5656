// consumer.cpp - a program outside the project that uses the installed wrapper.
#include <iostream>
#include <jactor.hpp>

int main() {
  jactor::Actor actor([](jactor::SockRef sock) {
    sock.ready();
    while (auto message = sock.receive()) {
      sock.send(std::move(*message));
    }
  });
  actor.send(jactor::Message{"jactor"});
  std::cout << "C++: " << actor.receive()->pop_string().value() << ' ' << JACTOR_VERSION_MAJOR
            << '.' << JACTOR_VERSION_MINOR << '.' << JACTOR_VERSION_PATCH << '\n';
}
