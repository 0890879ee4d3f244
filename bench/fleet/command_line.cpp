#include "bench/fleet/command_line.h"

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <thread>
#include <vector>

#include "lab/support/options.h"

namespace fleet {
namespace {

using lab::BadValue;
using lab::parse_number;

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);)
    parts.push_back(part);
  return parts;
}

Moment time_of_day(const std::string& text) {
  const std::vector<std::string> parts = split(text, ':');
  if (parts.size() != 2) throw BadValue("does not begin with a time such as 12:00");
  return parse_number(parts[0], 0, 47) * kHour + parse_number(parts[1], 0, 59) * kMinute;
}

Span span(const std::vector<std::string>& parts) {
  constexpr long kMostMinutes = 2880;
  const Moment from = time_of_day(parts[0]);
  return {from, from + parse_number(parts[1], 1, kMostMinutes) * kMinute};
}

Outage outage(const std::string& text) {
  const std::vector<std::string> parts = split(text, ',');
  if (parts.size() != 3) throw BadValue("is not TIME,MINUTES,FAULT, for instance 12:00,30,refuse");
  if (parts[2] == "refuse") return {span(parts), Fault::kRefuse};
  if (parts[2] == "drop") return {span(parts), Fault::kDrop};
  if (parts[2] == "error") return {span(parts), Fault::kError};
  if (parts[2] == "silent") return {span(parts), Fault::kSilent};
  throw BadValue("names no fault: refuse, drop, error or silent");
}

Span power_cut(const std::string& text) {
  const std::vector<std::string> parts = split(text, ',');
  if (parts.size() != 2) throw BadValue("is not TIME,MINUTES, for instance 12:00,10");
  return span(parts);
}

void restart_delay(const std::string& text, Scenario& scenario) {
  constexpr long kMost = 86400;
  const std::vector<std::string> parts = split(text, ',');
  if (parts.empty() || parts.size() > 2) throw BadValue("is not SECONDS or SECONDS,RANDOM");
  scenario.restart = parse_number(parts[0], 0, kMost) * kSecond;
  scenario.restart_random = parts.size() == 2 ? parse_number(parts[1], 0, kMost) : 0;
}

// Numbers as the options give them.
struct Numbers {
  long hours = 24;
  long files;
  long file_bytes;
  long sleep;
  long watchdog;
  long answer;
  long round_trip;
  long uplink;
  long threads;
  long bin = 1;
};

Numbers defaults(const Scenario& scenario) {
  Numbers numbers;
  numbers.files = static_cast<long>(scenario.files_a_day);
  numbers.file_bytes = scenario.file_bytes;
  numbers.sleep = scenario.sleep_seconds;
  numbers.watchdog = scenario.watchdog / kSecond;
  numbers.answer = scenario.answer;
  numbers.round_trip = scenario.round_trip;
  numbers.uplink = scenario.bytes_a_second;
  numbers.threads = std::max(1L, static_cast<long>(std::thread::hardware_concurrency()));
  return numbers;
}

void store(const Numbers& numbers, CommandLine& line) {
  Scenario& scenario = line.scenario;
  scenario.end = numbers.hours * kHour;
  scenario.files_a_day = static_cast<double>(numbers.files);
  scenario.file_bytes = numbers.file_bytes;
  scenario.sleep_seconds = static_cast<int>(numbers.sleep);
  scenario.watchdog = numbers.watchdog * kSecond;
  scenario.answer = numbers.answer;
  scenario.round_trip = numbers.round_trip;
  scenario.bytes_a_second = numbers.uplink;
  line.threads = static_cast<unsigned>(numbers.threads);
  line.bin = static_cast<std::size_t>(numbers.bin);
}

[[noreturn]] void wrong(const std::string& why) {
  std::cerr << "fleet: " << why << "; --help lists the options" << std::endl;
  std::exit(lab::kWrongOption);
}

}  // namespace

CommandLine read_command_line(int argc, char** argv) {
  CommandLine line;
  Scenario& scenario = line.scenario;
  Numbers numbers = defaults(scenario);
  bool plain = false;
  constexpr long kMany = 1'000'000;
  lab::Options options(
      "fleet",
      "Simulates a day of a fleet of devices under the service's own rules, and draws the load at\n"
      "the servers. Prints a summary (JSON); times of day are UTC.");
  options.number("devices", "N", "1 to 1000000 (1000)", 1, kMany, &scenario.devices)
      .number("hours", "N", "1 to 48, from 00:00 on (24)", 1, 48, &numbers.hours)
      .number("seed", "N", "of everything random (1)", 0, 4294967295L, &scenario.seed)
      .value("outage", "TIME,MINUTES,FAULT",
             "of both servers; FAULT: refuse, drop (packets vanish), error (503), silent (no "
             "answers); may be repeated",
             [&](const std::string& text) { scenario.outages.push_back(outage(text)); })
      .value("power-cut", "TIME,MINUTES", "of all devices at once; may be repeated",
             [&](const std::string& text) { scenario.power_cuts.push_back(power_cut(text)); })
      .value("restart-delay", "SECONDS[,RANDOM]",
             "RestartSec=, and a random pause of 0 to RANDOM - 1 s before each start (20,10)",
             [&](const std::string& text) { restart_delay(text, scenario); })
      .number("sleep", "SECONDS", "the service's option -d (5)", 1, 3600, &numbers.sleep)
      .number("watchdog", "SECONDS", "WatchdogSec=; 0: none (120)", 0, 86400, &numbers.watchdog)
      .flag("slots", "a build of the service in which kinds wait for their slot",
            &scenario.waits_for_slot)
      .number("files", "N", "files a day of each of the 14 kinds (4)", 0, 86400, &numbers.files)
      .number("file-bytes", "N", "their mean size (20000)", 1, 100 * kMany, &numbers.file_bytes)
      .flag("together", "all devices write theirs at the same moments of the clock",
            &scenario.together)
      .number("answer", "MS", "the server's time for an answer (100)", 0, 180000, &numbers.answer)
      .number("round-trip", "MS", "of the network (60)", 1, 10000, &numbers.round_trip)
      .number("uplink", "BYTES", "a second, of each device (500000)", 1, 1000 * kMany,
              &numbers.uplink)
      .flag("plain", "without TLS", &plain)
      .text("csv", "FILE", "also write the load over time", &line.csv)
      .number("bin", "SECONDS", "of one row of it (1)", 1, 3600, &numbers.bin)
      .flag("trace", "print every event of a single device instead", &line.trace)
      .number("threads", "N", "to simulate with; changes nothing but the time it takes", 1, 256,
              &numbers.threads)
      .read_or_exit(argc, argv);
  store(numbers, line);
  scenario.tls = !plain;
  if (line.trace && scenario.devices != 1) wrong("--trace follows one device: --devices 1");
  const std::string why = objection(scenario);
  if (!why.empty()) wrong(why);
  return line;
}

}  // namespace fleet
