// A stand-in for the event loop library: it defines the library's functions, so a test program that
// links it opens no socket and starts no thread. Every call is noted in the journal:
// "mg_create_server", "mg_connect host:80 ssl 0", "mg_write 4: text", "mg_poll_server 2000", ...
#ifndef TESTS_LOG_CONSUMER_FAKE_MONGOOSE_H
#define TESTS_LOG_CONSUMER_FAKE_MONGOOSE_H

#include <functional>
#include <memory>
#include <vector>

#include "mongoose.h"

namespace test_support {

/// What the library does; reset by each fixture.
struct FakeMongoose {
  bool createFails = false;
  bool connectFails = false;
  std::function<int()> poll;  ///< called in each poll; its result is the poll's

  void* serverParam = nullptr;  ///< of the last mg_create_server()
  mg_handler_t handler = nullptr;
  void* (*threadFunction)(void*) = nullptr;  ///< of the last mg_start_thread()
  void* threadParam = nullptr;
  std::vector<std::unique_ptr<mg_connection>> connections;  ///< all that mg_connect() gave
};

FakeMongoose& fake_mongoose();

}  // namespace test_support

#endif
