#include "tools/ppctl/run.h"

#include <csignal>
#include <cstring>
#include <exception>

#include "tools/ppctl/failure.h"
#include "tools/ppctl/verbs.h"

namespace ppctl {

namespace {

struct Runner {
  const char* verb;
  Status (*run)(const Context& context);
};

constexpr Runner kRunners[] = {
    {"get", run_get},       {"set", run_set},       {"publish", run_publish},
    {"clear", run_clear},   {"delete", run_delete}, {"watch", run_watch},
    {"save", run_save},     {"sync", run_sync},     {"send", run_send},
    {"record", run_record}, {"replay", run_replay}, {"queues", run_queues},
    {"doctor", run_doctor},
};

Status run_verb(const Context& context) {
  for (const Runner& runner : kRunners) {
    if (std::strcmp(runner.verb, context.options.verb->name) == 0) return runner.run(context);
  }
  throw std::logic_error(std::string("nothing runs ") + context.options.verb->name);
}

Status run_command_line(int argc, char** argv) {
  const Options options = parse_options(argc, argv);
  Events events;
  const Output output(events, options.json, options.quiet);
  if (options.help) {
    output.text(help_text(options.verb));
  } else if (options.version) {
    output.text(version_text() + "\n");
  } else {
    return run_verb({options, events, output});
  }
  return Status::kDone;
}

Status report(const std::string& text, Status status) {
  Output::error(text);
  return status;
}

// All is cleaned up; what started this process is to see what ended it.
Status die_of(int signal) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  static_cast<void>(std::signal(signal, SIG_DFL));
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
  static_cast<void>(raise(signal));
  return Status::kOwnTrouble;  // not reached
}

Status run_to_status(int argc, char** argv) {
  try {
    return run_command_line(argc, argv);
  } catch (const Failure& failure) {
    return report(failure.what(), failure.status());
  } catch (const Interrupted& interrupted) {
    return die_of(interrupted.signal());
  } catch (const std::exception& error) {
    return report(error.what(), Status::kOwnTrouble);
  }
}

}  // namespace

int run(int argc, char** argv) {
  return static_cast<int>(run_to_status(argc, argv));
}

}  // namespace ppctl
