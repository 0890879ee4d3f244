#include "lab/upload_server/control.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "lab/support/record.h"

namespace lab {
namespace {

using Json = nlohmann::ordered_json;

unsigned times_of(const Json& command) {
  const auto times = command.find("times");
  if (times == command.end()) return 1;
  constexpr unsigned kMost = 1'000'000;
  if (!times->is_number_unsigned() || times->get<std::uint64_t>() > kMost) {
    throw std::invalid_argument("member times has an unusable value");
  }
  return times->get<unsigned>();
}

Json report_of(const UploadServer& server) {
  Json uploads = Json::array();
  for (const UploadReport& report : server.reports())
    uploads.push_back(to_json(report));
  return {{"ok", true},
          {"connections_accepted", server.connections_accepted()},
          {"connections_open", server.connections_open()},
          {"uploads", std::move(uploads)}};
}

Json carry_out(UploadServer& server, const Json& command) {
  const Json name = command.is_object() ? command.value("do", Json()) : Json();
  if (name == "report") return report_of(server);
  if (name == "reply") {
    server.script(reply_from_json(command), times_of(command));
  } else if (name == "default") {
    server.set_default_reply(reply_from_json(command));
  } else if (name == "clear") {
    server.clear_script();
  } else if (name == "refuse") {
    server.refuse_connections(times_of(command));
  } else if (name == "pause") {
    server.pause();
  } else if (name == "resume") {
    server.resume();
  } else if (name == "drop") {
    server.drop_connections();
  } else {
    throw std::invalid_argument("no such command");
  }
  return {{"ok", true}};
}

}  // namespace

std::string control(UploadServer& server, const std::string& line) {
  try {
    return json_line(carry_out(server, Json::parse(line)));
  } catch (const std::exception& error) {
    return json_line({{"ok", false}, {"error", error.what()}});
  }
}

}  // namespace lab
