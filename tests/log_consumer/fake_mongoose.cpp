#include "tests/log_consumer/fake_mongoose.h"

#include <deque>
#include <string>

#include "tests/support/journal.h"

using test_support::fake_mongoose;
using test_support::note;

struct mg_server {};

test_support::FakeMongoose& test_support::fake_mongoose() {
  static FakeMongoose instance;
  return instance;
}

extern "C" {

struct mg_server* mg_create_server(void* server_param, mg_handler_t handler) {
  note("mg_create_server");
  fake_mongoose().serverParam = server_param;
  fake_mongoose().handler = handler;
  static std::deque<mg_server> all;
  return fake_mongoose().createFails ? nullptr : &all.emplace_back();
}

struct mg_connection* mg_connect(struct mg_server* server, const char* host, int port,
                                 int use_ssl) {
  note("mg_connect " + std::string(host) + ":" + std::to_string(port) + " ssl " +
       std::to_string(use_ssl));
  if (server == nullptr || fake_mongoose().connectFails) return nullptr;
  fake_mongoose().connections.push_back(std::make_unique<mg_connection>());
  return fake_mongoose().connections.back().get();
}

int mg_poll_server(struct mg_server* /*server*/, int milliseconds) {
  note("mg_poll_server " + std::to_string(milliseconds));
  return fake_mongoose().poll ? fake_mongoose().poll() : 0;
}

void mg_destroy_server(struct mg_server** server) {
  note("mg_destroy_server");
  *server = nullptr;
}

int mg_write(struct mg_connection* /*connection*/, const void* bytes, int length) {
  note("mg_write " + std::to_string(length) + ": " +
       std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(length)));
  return length;
}

void* mg_start_thread(void* (*function)(void*), void* param) {
  note("mg_start_thread");
  fake_mongoose().threadFunction = function;
  fake_mongoose().threadParam = param;
  return param;
}

}  // extern "C"
