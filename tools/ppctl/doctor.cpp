#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>

#include "tools/ppctl/findings.h"
#include "tools/ppctl/queue_facts.h"
#include "tools/ppctl/session.h"
#include "tools/ppctl/verbs.h"

namespace ppctl {

namespace {

const char* level_name(Level level) {
  switch (level) {
    case Level::kOk:
      return "ok";
    case Level::kNote:
      return "note";
    case Level::kWarning:
      return "warning";
    case Level::kWrong:
      return "wrong";
  }
  return "";
}

std::string as_line(const Finding& finding) {
  std::string line = level_name(finding.level);
  line.resize(9, ' ');
  line += finding.subject;
  line.resize(17, ' ');
  line += finding.text;
  if (!finding.advice.empty()) line += " -> " + finding.advice;
  return line + "\n";
}

Json as_json(const Finding& finding) {
  return {{"level", level_name(finding.level)},
          {"subject", finding.subject},
          {"finding", finding.text},
          {"advice", finding.advice}};
}

/// Shows findings as they are made and keeps the worst.
class Report {
 public:
  explicit Report(const Context& context) : context_(context) {}

  void add(const Finding& finding) {
    if (finding.level == Level::kWrong && status_ == Status::kDone) status_ = Status::kNoSuchNode;
    if (context_.options.quiet && finding.level < Level::kWarning) return;
    if (context_.options.json) {
      context_.output.document(as_json(finding));
    } else {
      context_.output.text(as_line(finding));
    }
  }

  void add(const Findings& findings) {
    for (const Finding& finding : findings)
      add(finding);
  }

  void end_with(Status status) { status_ = status; }
  Status status() const { return status_; }

 private:
  const Context& context_;
  Status status_ = Status::kDone;
};

void ask_store(const Context& context, Report& report) {
  Session session(context.options, context.events);
  const TimePoint start = Clock::now();
  session.open_replies();
  session.await_served([](const std::string&) { return false; });
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
  report.add({Level::kOk, "store",
              session.store_queue() + " answers, in " + std::to_string(took.count()) + " ms", ""});
}

void check_store(const Context& context, Report& report) {
  try {
    ask_store(context, report);
  } catch (const Failure& failure) {
    report.add({Level::kWrong, "store", failure.what(),
                failure.status() == Status::kNotReachable
                    ? "start the store; --suffix names another queue, and mind the queue's mode"
                    : "look at the store's own log"});
    report.end_with(failure.status());
  }
}

}  // namespace

Status run_doctor(const Context& context) {
  Report report(context);
  check_store(context, report);
  report.add(check_service_queue());
  report.add(check_left_queues(list_queues(kQueueFolder).value_or(std::vector<std::string>())));
  for (const LogFolder& folder : log_folders())
    report.add(check_log_folder(folder));
  report.add(check_find());
  report.add(check_fuser());
  report.add(check_trust(std::getenv("SSL_CERT_FILE"), std::getenv("SSL_CERT_DIR")));
  report.add(check_clock(std::time(nullptr), clock_is_synchronised()));
  return report.status();
}

}  // namespace ppctl
