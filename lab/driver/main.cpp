// lab: the whole system on a desk, with one command. See --help and lab/README.md.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "lab/driver/kinds.h"
#include "lab/driver/session.h"
#include "lab/support/child.h"
#include "lab/support/options.h"
#include "lab/upload_server/control.h"

namespace {

namespace fs = std::filesystem;

// Set inside the sandbox, where this program starts itself once more, to the folder in which it
// was started at first: paths on the command line are seen from there.
constexpr char kInside[] = "LAB_INSIDE_SANDBOX";

std::string absolute(const std::string& path) {
  const char* const from = std::getenv(kInside);
  return (from == nullptr ? fs::current_path() : fs::path(from)) / path;
}

std::string existing_file(const std::string& path) {
  std::error_code ignored;
  if (!fs::is_regular_file(absolute(path), ignored)) throw lab::BadValue("is no file");
  return absolute(path);
}

std::string existing_log(const std::string& path) {
  std::string file = existing_file(path);
  if (fs::path(file).filename().string().find(".gz") == std::string::npos) {
    throw lab::BadValue("has no .gz in its name, the service would never take it");
  }
  return file;
}

std::string known_kind(const std::string& name) {
  if (lab::find_kind(name) == nullptr) {
    throw lab::BadValue("is no kind, there are" + lab::kind_names());
  }
  return name;
}

std::string usable_command(const std::string& line) {
  try {
    lab::check_command(line);
  } catch (const std::invalid_argument& error) {
    throw lab::BadValue(std::string("cannot be used: ") + error.what());
  }
  return line;
}

lab::SessionSettings read_command_line(int argc, char** argv) {
  lab::SessionSettings settings;
  bool no_examples = false;
  lab::Options(
      "lab",
      "Runs the service in a private sandbox between a store, an upload server and producers,\n"
      "and checks that every log arrives byte for byte and is marked as sent. Ends with status 0\n"
      "only then. What happened stands in the record folder.")
      .value("kind", "NAME", "seed this kind only (perf, clp, Debug ...); may be repeated",
             [&settings](const std::string& value) {
               settings.seed.kinds.push_back(known_kind(value));
             })
      .value("file", "FILE", "seed a copy of this .gz file too; may be repeated",
             [&settings](const std::string& value) {
               settings.seed.own_files.push_back(existing_log(value));
             })
      .value("file-kind", "NAME", "the kind of those files (Debug)",
             [&settings](const std::string& value) { settings.seed.own_kind = known_kind(value); })
      .flag("no-examples", "seed nothing but those files", &no_examples)
      .value("server", "JSON",
             "command to the upload server before the start, e.g.\n"
             "{\"do\":\"reply\",\"times\":2,\"status\":500}; may be repeated, see upload_server",
             [&settings](const std::string& value) {
               settings.commands.push_back(usable_command(value));
             })
      .value("service", "FILE", "the service's program",
             [&settings](const std::string& value) { settings.service = existing_file(value); })
      .value("service-option", "OPTION", "one more option for it, e.g. -l1; may be repeated",
             [&settings](const std::string& value) { settings.service_options.push_back(value); })
      .flag("gnu-find", "leave the system's find on the service's PATH", &settings.gnu_find)
      .number("seconds", "N", "give up then (170)", 1, 86400, &settings.seconds)
      .text("record", "DIR", "record folder (a new one in $TMPDIR or /tmp)", &settings.record)
      .read_or_exit(argc, argv);
  settings.seed.examples = !no_examples;
  if (no_examples && settings.seed.own_files.empty()) {
    std::cerr << "lab: option --no-examples without --file leaves nothing to send" << std::endl;
    std::exit(lab::kWrongOption);
  }
  settings.programs = fs::read_symlink("/proc/self/exe").parent_path();
  settings.terminal = isatty(STDOUT_FILENO) == 1;
  return settings;
}

std::string new_record_folder() {
  std::string name = fs::temp_directory_path() / "log_consumer_lab.XXXXXX";
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot make " + name);
  return name;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines)
    text += line + "\n";
  return text;
}

// Throws where it does not start; why, it has said itself.
void try_sandbox() {
  lab::ChildSettings trial;
  trial.command = {LAB_SANDBOX, "true"};
  if (lab::Child(trial).wait() != 0) throw std::runtime_error("the sandbox does not start");
}

// Starts this program again in the sandbox, with the same options and the record folder named,
// which is made only where the sandbox starts. Only returns on failure.
void enter_sandbox(lab::SessionSettings settings, int argc, char** argv) {
  std::vector<std::string> shown = settings.seed.own_files;
  if (!settings.service.empty()) shown.push_back(settings.service);
  const std::string build = fs::path(settings.programs).parent_path();
  setenv("SANDBOX_RO_BIND", joined(shown).c_str(), 1);
  setenv("SANDBOX_BIND", joined({build}).c_str(), 1);
  try_sandbox();

  if (settings.record.empty()) settings.record = new_record_folder();
  fs::create_directories(settings.record);
  const std::string record = fs::absolute(settings.record);
  setenv(kInside, fs::current_path().c_str(), 1);
  setenv("SANDBOX_BIND", joined({record, build}).c_str(), 1);
  std::vector<std::string> words = {LAB_SANDBOX, settings.programs + "/lab"};
  words.insert(words.end(), argv + 1, argv + argc);
  words.insert(words.end(), {"--record", record});
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words)
    pointers.push_back(word.data());
  pointers.push_back(nullptr);
  execv(pointers[0], pointers.data());
  throw std::runtime_error(std::string("cannot start ") + LAB_SANDBOX + ": " + strerror(errno));
}

// Where the program that draws it has been built.
void draw_timeline(const lab::SessionSettings& settings) {
  const std::string program = settings.programs + "/lctimeline";
  const std::string page = settings.record + "/timeline.html";
  if (!fs::exists(program)) return;
  lab::ChildSettings drawing;
  drawing.command = {program, "--quiet", "--html", page, settings.record};
  lab::Child child(drawing);
  if (child.wait() == 0) std::cout << "A picture of the passes is in " << page << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
  const lab::SessionSettings settings = read_command_line(argc, argv);
  try {
    if (std::getenv(kInside) == nullptr) enter_sandbox(settings, argc, argv);
    const bool good = lab::run_session(settings);
    draw_timeline(settings);
    std::cout << "The record is in " << settings.record << std::endl;
    return good ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << "lab: " << error.what() << std::endl;
    return 1;
  }
}
