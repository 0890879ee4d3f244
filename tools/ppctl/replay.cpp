#include <nlohmann/json.hpp>

#include "tools/ppctl/input.h"
#include "tools/ppctl/recording.h"
#include "tools/ppctl/session.h"
#include "tools/ppctl/verbs.h"

namespace ppctl {

namespace {

// When a document is due. @param speed  0: at once
TimePoint due(TimePoint start, std::chrono::milliseconds since, double speed) {
  if (speed == 0) return start;
  constexpr double kLongestSeconds = 3.2e9;  // what is beyond does not fit the clock
  const double seconds = std::chrono::duration<double>(since).count() / speed;
  const std::chrono::duration<double> wait(std::min(seconds, kLongestSeconds));
  return start + std::chrono::duration_cast<Clock::duration>(wait);
}

Request as_request(const RecordedDocument& recorded) {
  return {"publish", write_json(recorded.document, Layout::kCompact)};
}

}  // namespace

Status run_replay(const Context& context) {
  const Options& options = context.options;
  const std::string& file = options.arguments[0];
  const Recording recording = parse_recording(read_input(context.events, file), input_name(file));
  Session session(options, context.events);
  for (const RecordedDocument& recorded : recording.documents)
    session.check(as_request(recorded));
  session.open_replies();
  const TimePoint start = Clock::now();
  for (const RecordedDocument& recorded : recording.documents) {
    context.events.wait(-1, 0, due(start, recorded.since, options.speed));
    session.request(as_request(recorded));
  }
  session.await_served([](const std::string&) { return false; }, "sent, but ");
  context.output.note(std::to_string(recording.documents.size()) + " documents published, " +
                      std::to_string(recording.left_out) + " texts left out");
  return Status::kDone;
}

}  // namespace ppctl
