#include "lab/support/options.h"

#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <utility>

namespace lab {

long parse_number(const std::string& text, long least, long greatest) {
  long number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number < least || number > greatest) {
    throw BadValue("is no number from " + std::to_string(least) + " to " +
                   std::to_string(greatest));
  }
  return number;
}

Options::Options(std::string program, std::string about)
    : program_(std::move(program)), about_(std::move(about)) {}

Options& Options::value(std::string name, std::string placeholder, std::string help,
                        Reader reader) {
  options_.push_back({std::move(name), std::move(placeholder), std::move(help), std::move(reader)});
  return *this;
}

Options& Options::text(std::string name, std::string placeholder, std::string help,
                       std::string* target) {
  return value(std::move(name), std::move(placeholder), std::move(help),
               [target](const std::string& value) { *target = value; });
}

Options& Options::number(std::string name, std::string placeholder, std::string help, long least,
                         long greatest, long* target) {
  return value(std::move(name), std::move(placeholder), std::move(help),
               [=](const std::string& value) { *target = parse_number(value, least, greatest); });
}

Options& Options::flag(std::string name, std::string help, bool* target) {
  return value(std::move(name), "", std::move(help),
               [target](const std::string&) { *target = true; });
}

void Options::wrong(const std::string& why) const {
  std::cerr << program_ << ": " << why << "; --help lists the options" << std::endl;
  std::exit(kWrongOption);
}

void Options::apply(const Option& option, const char* value) const {
  try {
    option.reader(value == nullptr ? "" : value);
  } catch (const BadValue& error) {
    wrong("option --" + option.name + ": '" + (value == nullptr ? "" : value) + "' " +
          error.what());
  }
}

void Options::read_or_exit(int argc, char** argv) const {
  std::vector<struct option> known;
  for (const Option& option : options_) {
    known.push_back({option.name.c_str(),
                     option.placeholder.empty() ? no_argument : required_argument, nullptr, 0});
  }
  known.push_back({"help", no_argument, nullptr, 0});
  known.push_back({"version", no_argument, nullptr, 0});
  known.push_back({nullptr, 0, nullptr, 0});

  opterr = 0;
  optind = 0;  // from the start, also when a process reads a second command line
  for (;;) {
    const int at = optind == 0 ? 1 : optind;
    int index = 0;
    // "+": the first word that is no option ends them; ":": tell a missing value apart.
    const int result = getopt_long(argc, argv, "+:", known.data(), &index);
    if (result == -1) break;
    if (result == ':') wrong(std::string("option ") + argv[at] + " needs a value");
    if (result != 0) wrong(std::string("no such option: ") + argv[at]);
    if (static_cast<std::size_t>(index) >= options_.size()) {
      const bool asks_for_help = static_cast<std::size_t>(index) == options_.size();
      std::cout << (asks_for_help ? help() : program_ + " " LAB_VERSION "\n");
      std::exit(0);
    }
    apply(options_[static_cast<std::size_t>(index)], optarg);
  }
  if (optind < argc) wrong(std::string("no such argument: ") + argv[optind]);
}

std::string Options::help() const {
  std::string text = "usage: " + program_ + " [OPTION...]\n" + about_ + "\n\n";
  const auto line = [&text](const std::string& name, const std::string& help) {
    constexpr std::size_t kColumn = 26;
    text += "  " + name +
            (name.size() < kColumn ? std::string(kColumn - name.size(), ' ')
                                   : "\n" + std::string(kColumn + 2, ' '));
    for (const char c : help) {
      text += c;
      if (c == '\n') text += std::string(kColumn + 2, ' ');
    }
    text += '\n';
  };
  for (const Option& option : options_) {
    line("--" + option.name + (option.placeholder.empty() ? "" : " " + option.placeholder),
         option.help);
  }
  line("--help", "this text");
  line("--version", "name and version");
  return text;
}

}  // namespace lab
