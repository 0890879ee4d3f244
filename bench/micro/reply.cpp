// A server's reply, from its bytes to the verdict.
#include <benchmark/benchmark.h>

#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <string>

#include "compat/mongoose/reply_reader.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"

namespace {

const std::string& reply() {
  static const std::string text =
      "HTTP/1.1 200 OK\r\nDate: Tue, 03 Feb 2026 09:05:00 GMT\r\nServer: uploads\r\n"
      "Content-Type: application/json\r\nContent-Length: 37\r\nConnection: keep-alive\r\n\r\n"
      R"({"code":1,"message":"file accepted."})";
  return text;
}

// The parser alone, as it comes.
void bare_http_parse(benchmark::State& state) {
  namespace http = boost::beast::http;
  for (auto _ : state) {
    http::response_parser<http::string_body> parser;
    parser.eager(true);
    boost::beast::error_code error;
    parser.put(boost::asio::buffer(reply()), error);
    if (error || !parser.is_done()) state.SkipWithError("no reply");
    benchmark::DoNotOptimize(&parser.get());
  }
}

void reply_read(benchmark::State& state) {
  mg_facade::ReplyReader reader;
  for (auto _ : state) {
    reader.feed(reply().data(), reply().size());
    const auto read = reader.next();
    if (!read || !read->usable) state.SkipWithError("no reply");
    benchmark::DoNotOptimize(&*read);
  }
}

// The check of an answer's body.
void answer_judged(benchmark::State& state) {
  LogConsumer engine;
  std::string buffer = reply();
  for (auto _ : state) {
    if (engine.parseResponse(buffer.data()) != 0) state.SkipWithError("refused");
  }
}

BENCHMARK(bare_http_parse);
BENCHMARK(reply_read);
BENCHMARK(answer_judged);

}  // namespace
