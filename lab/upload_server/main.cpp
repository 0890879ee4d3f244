// upload_server: the servers of a device, on a desk. See --help and lab/README.md.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

#include "lab/support/line_server.h"
#include "lab/support/options.h"
#include "lab/support/record.h"
#include "lab/support/signals.h"
#include "lab/upload_server/control.h"
#include "lab/upload_server/upload_server.h"

namespace {

struct CommandLine {
  lab::UploadServer::Settings settings;
  long port = 0;
  long control_port = 0;
  std::string out;
  bool json = false;
};

// TLS takes both.
void check_pair(const lab::UploadServer::Settings& settings) {
  if (settings.certificate.empty() == settings.key.empty()) return;
  std::cerr << "upload_server: option "
            << (settings.key.empty() ? "--certificate needs --key" : "--key needs --certificate")
            << "; --help lists the options" << std::endl;
  std::exit(lab::kWrongOption);
}

CommandLine read_command_line(int argc, char** argv) {
  CommandLine line;
  lab::Options(
      "upload_server",
      "Accepts log uploads, multipart and raw, on one port; keeps and reports them.\n"
      "Prints one line when it listens and one for each upload. The control port takes\n"
      "commands, one a line, and answers each with a line:\n"
      "  {\"do\":\"reply\",\"times\":2,\"status\":500}  how to answer the next 2 uploads; also\n"
      "      kind, reason, body, framing, raw, silent, delay_ms, close, close_after, reset,\n"
      "      piece, piece_pause_ms, read_piece, read_pause_ms, see lab/README.md\n"
      "  {\"do\":\"default\",...}  how to answer all others    {\"do\":\"clear\"}  with 200 again\n"
      "  {\"do\":\"refuse\",\"times\":3}  close the next 3 connections at once\n"
      "  {\"do\":\"pause\"}  {\"do\":\"resume\"}  {\"do\":\"drop\"}  {\"do\":\"report\"}")
      .text("address", "ADDRESS", "numeric address to listen on (127.0.0.1)",
            &line.settings.address)
      .number("port", "N", "port of the uploads; 0, the default: any free one", 0, 65535,
              &line.port)
      .number("control-port", "N", "port of the commands, on 127.0.0.1; 0: any free one", 0, 65535,
              &line.control_port)
      .text("out", "DIR", "keep every request (NNNN.request) and every file (NNNN-NAME) in DIR",
            &line.out)
      .text("certificate", "FILE", "speak TLS: certificate chain, PEM", &line.settings.certificate)
      .text("key", "FILE", "and its key, PEM", &line.settings.key)
      .flag("json", "print JSON lines", &line.json)
      .read_or_exit(argc, argv);
  check_pair(line.settings);
  line.settings.port = static_cast<std::uint16_t>(line.port);
  line.settings.keep_bytes = false;
  return line;
}

// "0007" + suffix, so that a listing shows the order of arrival.
std::string numbered(const std::string& directory, unsigned number, const std::string& suffix) {
  std::string digits = std::to_string(number);
  digits.insert(0, digits.size() < 4 ? 4 - digits.size() : 0, '0');
  return directory + "/" + digits + suffix;
}

// Adds where the bytes are to the line.
void keep(const std::string& directory, const lab::UploadReport& report,
          nlohmann::ordered_json& line) {
  const lab::Upload& upload = report.upload;
  const std::string request = numbered(directory, report.number, ".request");
  lab::write_file(request, upload.request);
  line["request"] = request;
  if (!upload.complete) return;
  const std::string name = upload.kind == lab::UploadKind::kRaw ? "raw.gz" : upload.file_name;
  const std::string file = numbered(directory, report.number, "-" + lab::safe_file_name(name));
  lab::write_file(file, upload.file);
  line["file"] = file;
}

void print(const CommandLine& line, const nlohmann::ordered_json& event, const std::string& plain) {
  std::cout << (line.json ? lab::json_line(event) : plain) << std::endl;
}

void print_upload(const CommandLine& line, const lab::UploadReport& report) {
  nlohmann::ordered_json event = {{"event", "upload"}};
  event.update(to_json(report));
  try {
    if (!line.out.empty()) keep(line.out, report, event);
  } catch (const std::exception& error) {
    std::cerr << "upload_server: " << error.what() << std::endl;
    event["lost"] = error.what();
  }
  print(line, event,
        report.time + " #" + std::to_string(report.number) + " " +
            lab::name_of(report.upload.kind) + " " + report.upload.file_name + " " +
            std::to_string(report.upload.file.size()) + " bytes, " + std::to_string(report.status) +
            ", " + report.outcome +
            (report.upload.problem.empty() ? "" : ": " + report.upload.problem));
}

void serve(CommandLine line) {
  const lab::UniqueFd stop = lab::block_stop_signals();
  if (!line.out.empty() && mkdir(line.out.c_str(), 0755) != 0 && errno != EEXIST) {
    throw std::runtime_error("cannot make the directory " + line.out);
  }
  lab::UploadServer::Settings settings = line.settings;
  settings.on_upload = [&line](const lab::UploadReport& report) { print_upload(line, report); };
  settings.on_failed_connection = [&line](unsigned connection, const std::string& problem) {
    print(line, {{"event", "failed connection"}, {"connection", connection}, {"problem", problem}},
          "connection " + std::to_string(connection) + ": " + problem);
  };
  lab::LineServer commands(static_cast<std::uint16_t>(line.control_port));
  lab::UploadServer server(settings);
  print(line, {{"event", "listening"}, {"port", server.port()}, {"control_port", commands.port()}},
        "listening on " + settings.address + " port " + std::to_string(server.port()) +
            ", commands on port " + std::to_string(commands.port()));
  commands.serve(stop.get(), [&server](const std::string& text) { return control(server, text); });
}

}  // namespace

int main(int argc, char** argv) {
  const CommandLine line = read_command_line(argc, argv);
  try {
    serve(line);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "upload_server: " << error.what() << std::endl;
    return 1;
  }
}
