// pushpull_store: the store's side of the pushpull protocol, on real queues. See --help.
#include <poll.h>

#include <array>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "lab/pushpull_store/queues.h"
#include "lab/pushpull_store/store.h"
#include "lab/support/options.h"
#include "lab/support/record.h"
#include "lab/support/signals.h"

namespace {

struct CommandLine {
  std::string suffix;
  lab::QueueSize queue_size;
  std::vector<std::pair<std::string, lab::QueueSize>> component_queues;
  std::string document;
  std::string save;
  bool json = false;
};

std::pair<std::string, lab::QueueSize> parse_named_queue(const std::string& text) {
  const std::size_t colon = text.find(':');
  if (text.empty() || text.front() != '/' || colon == std::string::npos) {
    throw lab::BadValue("is not /NAME:MAX:SIZE");
  }
  return {text.substr(0, colon), lab::parse_queue_size(text.substr(colon + 1))};
}

CommandLine read_command_line(int argc, char** argv) {
  CommandLine line;
  lab::Options(
      "pushpull_store",
      "Keeps a JSON tree and serves the components' requests on the queue /pushpull.\n"
      "Prints one line when it is ready and one for each request; ends on SIGTERM and removes\n"
      "the queues that it made. A message to a full queue is dropped, and the line says so.")
      .text("suffix", "TEXT", "serve the queue /pushpullTEXT", &line.suffix)
      .value("queue", "MAX:SIZE", "size of that queue, 10:8192 unless told",
             [&line](const std::string& text) { line.queue_size = lab::parse_queue_size(text); })
      .value("component-queue", "/NAME:MAX:SIZE",
             "make a component's queue beforehand, as large as allowed up to this size,\n"
             "for components that want more than the machine allows; may be repeated",
             [&line](const std::string& text) {
               line.component_queues.push_back(parse_named_queue(text));
             })
      .text("document", "FILE", "start with this JSON object", &line.document)
      .text("save", "FILE", "where the requests save and save_debug (FILE.debug) write", &line.save)
      .flag("json", "print JSON lines", &line.json)
      .read_or_exit(argc, argv);
  return line;
}

void print(const CommandLine& line, const lab::Json& event, const std::string& plain) {
  std::cout << (line.json ? lab::json_line(event) : plain) << std::endl;
}

lab::Json described(const lab::Queue& queue) {
  return {
      {"queue", queue.name()}, {"maxmsg", queue.size().messages}, {"msgsize", queue.size().bytes}};
}

std::string hexadecimal(std::int64_t id) {
  std::array<char, 20> text = {};
  const int size = std::snprintf(text.data(), text.size(), "0x%llx", static_cast<long long>(id));
  return {text.data(), static_cast<std::size_t>(size)};
}

void serve_request(const CommandLine& line, lab::Store& store, const std::string& request) {
  const lab::Handled handled = store.handle(request);
  lab::Json sent = lab::Json::array();
  std::string plain = lab::utc_now() + " " + handled.function + " " +
                      (handled.comp_id < 0 ? "" : hexadecimal(handled.comp_id)) + " '" +
                      handled.buffer + "': " + handled.outcome;
  for (const lab::Message& message : handled.messages) {
    const std::string result = lab::send_message(message.queue, message.text);
    plain += "; " + std::to_string(message.text.size() + 1) + " bytes to " + message.queue + " " +
             result;
    sent.push_back({{"queue", message.queue}, {"text", message.text}, {"result", result}});
  }
  print(line,
        {{"event", "request"},
         {"time", lab::utc_now()},
         {"function", handled.function},
         {"comp_id", handled.comp_id},
         {"buffer", handled.buffer},
         {"options", handled.options.empty() ? lab::Json() : lab::Json::parse(handled.options)},
         {"ok", handled.ok},
         {"outcome", handled.outcome},
         {"sent", sent}},
        plain);
}

void serve(const CommandLine& line) {
  const lab::UniqueFd stop = lab::block_stop_signals();
  lab::Store store(line.save);
  if (!line.document.empty()) store.load(lab::read_file(line.document));

  lab::Json component_queues = lab::Json::array();
  std::vector<lab::Queue> held;
  for (const auto& [name, size] : line.component_queues) {
    held.emplace_back(name, size);
    component_queues.push_back(described(held.back()));
  }
  const lab::Queue queue("/pushpull" + line.suffix, line.queue_size);
  lab::Json ready = {{"event", "ready"}};
  ready.update(described(queue));
  ready["component_queues"] = component_queues;
  print(line, ready, "serving " + lab::json_line(described(queue)));

  for (;;) {
    std::array<pollfd, 2> descriptors = {
        {{stop.get(), POLLIN, 0}, {queue.descriptor(), POLLIN, 0}}};
    if (poll(descriptors.data(), descriptors.size(), -1) == -1) continue;
    if (descriptors[0].revents != 0) return;
    while (const auto request = queue.receive())
      serve_request(line, store, *request);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const CommandLine line = read_command_line(argc, argv);
  try {
    serve(line);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "pushpull_store: " << error.what() << std::endl;
    return 1;
  }
}
