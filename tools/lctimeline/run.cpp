#include "tools/lctimeline/run.h"

#include <getopt.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/lctimeline/drawing.h"
#include "tools/lctimeline/summary.h"

namespace lctimeline {

namespace {

constexpr char kHelp[] =
    R"(usage: lctimeline [OPTION...] [FILE|FOLDER...]
Draws what the log consumer did, from its syslog lines: journalctl -o short-iso-precise or -o json,
plain syslog files, or the record folder of the desk lab. Without a file, or for "-", reads standard
input. Wants the debug messages too; without them it shows what the others tell.

  -o, --html FILE   write a page with picture, legend and totals
  -s, --svg FILE    write the picture alone
  -q, --quiet       print no summary
      --help        this text
      --version     name and version

Exit status: 0 done, 1 nothing of the service found or a file that fails, 2 wrong usage.
)";

struct Settings {
  std::string html;
  std::string svg;
  bool quiet = false;
  std::vector<std::string> inputs;
};

[[noreturn]] void fail_with_errno(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::binary);
  file << bytes << std::flush;
  if (!file) fail_with_errno("cannot write " + path);
}

void read_input(std::string path, TimelineBuilder& builder) {
  if (path == "-") return read_log(std::cin, std::time(nullptr) * kSecond, builder);
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) fail_with_errno("cannot read " + path);
  if (S_ISDIR(status.st_mode)) {
    path += "/syslog.jsonl";
    if (stat(path.c_str(), &status) != 0) fail_with_errno("cannot read " + path);
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) fail_with_errno("cannot read " + path);
  read_log(file, status.st_mtime * kSecond, builder);
}

// False when the options already decided how the program ends.
bool read_options(int argc, char** argv, Settings& settings, int& status) {
  constexpr int kHelpOption = 1;
  constexpr int kVersionOption = 2;
  static constexpr std::array<option, 6> kOptions = {
      {{"html", required_argument, nullptr, 'o'},
       {"svg", required_argument, nullptr, 's'},
       {"quiet", no_argument, nullptr, 'q'},
       {"help", no_argument, nullptr, kHelpOption},
       {"version", no_argument, nullptr, kVersionOption},
       {nullptr, 0, nullptr, 0}}};
  for (int letter = 0;
       (letter = getopt_long(argc, argv, "o:s:q", kOptions.data(), nullptr)) != -1;) {
    switch (letter) {
      case 'o':
        settings.html = optarg;
        break;
      case 's':
        settings.svg = optarg;
        break;
      case 'q':
        settings.quiet = true;
        break;
      case kHelpOption:
        std::cout << kHelp;
        status = kDone;
        return false;
      case kVersionOption:
        std::cout << "lctimeline " LCTIMELINE_VERSION "\n";
        status = kDone;
        return false;
      default:  // getopt has named it
        std::cerr << "lctimeline: --help lists the options\n";
        status = kUsage;
        return false;
    }
  }
  settings.inputs.assign(argv + optind, argv + argc);
  if (settings.inputs.empty()) settings.inputs.emplace_back("-");
  return true;
}

}  // namespace

void read_log(std::istream& input, Microseconds written, TimelineBuilder& builder) {
  for (std::string line; std::getline(input, line);)
    builder.add(parse_line(line, written));
}

int run(int argc, char** argv) {
  Settings settings;
  int status = kDone;
  if (!read_options(argc, argv, settings, status)) return status;
  try {
    TimelineBuilder builder;
    for (const std::string& input : settings.inputs)
      read_input(input, builder);
    const Timeline timeline = builder.finish();
    if (!settings.html.empty()) write_file(settings.html, html_page(timeline));
    if (!settings.svg.empty()) write_file(settings.svg, svg_picture(timeline));
    if (!settings.quiet) std::cout << summary(timeline);
    return timeline.service_lines == 0 ? kNothingFound : kDone;
  } catch (const std::exception& error) {
    std::cerr << "lctimeline: " << error.what() << std::endl;
    return kNothingFound;
  }
}

}  // namespace lctimeline
