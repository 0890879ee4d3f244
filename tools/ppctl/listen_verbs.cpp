#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <nlohmann/json.hpp>

#include "tools/ppctl/documents.h"
#include "tools/ppctl/recording.h"
#include "tools/ppctl/session.h"
#include "tools/ppctl/unique_fd.h"
#include "tools/ppctl/verbs.h"

namespace ppctl {

namespace {

// A store that has been silent for so long is asked whether it is still there.
constexpr std::chrono::seconds kSilence{10};

/// Subscribes to nodes and hands every notification out.
class Listener {
 public:
  using Sink = std::function<void(const Json& message)>;

  Listener(const Context& context, std::vector<std::string> paths, Sink sink);

  /// Returns once the store has served it. Messages may come meanwhile.
  void subscribe();

  /// Listens until the command line's limits, from the start on, are reached.
  /// @throws Failure kTimedOut when fewer messages came within the window than were asked for, or
  /// the store does not answer any more
  void listen();

 private:
  std::string joined_paths() const;
  bool take(const std::string& message);
  bool is_wanted(const Json& message) const;
  void note_loss();
  bool has_enough() const { return options_.count && taken_ >= *options_.count; }
  void on_silence();

  const Context& context_;
  const Options& options_;
  const std::vector<std::string> paths_;
  std::vector<std::string> tops_;  // the first names of the paths; empty for the whole tree
  const Sink sink_;
  Session session_;
  const TimePoint end_;
  long taken_ = 0;
  bool has_noted_loss_ = false;
  TimePoint alarm_;        // when the store's silence means something
  bool is_asked_ = false;  // whether it is there
};

Listener::Listener(const Context& context, std::vector<std::string> paths, Sink sink)
    : context_(context),
      options_(context.options),
      paths_(std::move(paths)),
      sink_(std::move(sink)),
      session_(options_, context.events),
      end_(options_.window ? Clock::now() + *options_.window : TimePoint::max()) {
  for (const std::string& path : paths_) {
    const Path names = parse_path(path);
    tops_.push_back(names.empty() ? "" : names.front());
  }
}

void Listener::listen() {
  context_.output.note("watching " + joined_paths());
  note_loss();
  alarm_ = Clock::now() + kSilence;
  while (!has_enough() && Clock::now() < end_) {
    const TimePoint alarm = session_.has_echo() ? alarm_ : TimePoint::max();
    if (const auto message = session_.receive(std::min(end_, alarm))) {
      is_asked_ = false;
      alarm_ = Clock::now() + kSilence;
      if (!session_.is_echo(*message)) take(*message);
      note_loss();
    } else if (Clock::now() >= alarm) {
      on_silence();
    }
  }
  if (options_.count && !has_enough()) {
    throw Failure(Status::kTimedOut, std::to_string(taken_) + " of " +
                                         std::to_string(*options_.count) +
                                         " messages came within " + seconds_text(*options_.window));
  }
}

std::string Listener::joined_paths() const {
  std::string joined;
  for (const std::string& path : paths_)
    joined += (joined.empty() ? "" : ";") + path;
  return joined;
}

void Listener::subscribe() {
  Request request = {"subscribe", joined_paths()};
  request.notify_on_change_only = options_.changes_only;
  session_.open_replies();
  session_.request(request);
  session_.await_served([this](const std::string& message) { return take(message); });
}

bool Listener::take(const std::string& message) {
  const Json document = read_message(message);
  if (is_wanted(document)) {
    ++taken_;
    sink_(document);
  }
  return has_enough();
}

// Answers to what the session asked on its own behalf come into the same queue.
bool Listener::is_wanted(const Json& message) const {
  if (!message.is_object() || message.empty()) return true;
  return std::any_of(tops_.begin(), tops_.end(), [&message](const std::string& top) {
    return top.empty() || message.contains(top);
  });
}

void Listener::note_loss() {
  if (!session_.was_full() || has_noted_loss_) return;
  has_noted_loss_ = true;
  context_.output.note(kMayBeLost);
}

void Listener::on_silence() {
  if (is_asked_) {
    throw Failure(Status::kTimedOut, "the store does not answer any more");
  }
  session_.request_echo();
  is_asked_ = true;
  alarm_ = Clock::now() + options_.timeout;
}

/// The file of `record`, stdout for "-". What it held stays until there is something to record.
class RecordingFile {
 public:
  RecordingFile(const Context& context, const std::string& file, std::vector<std::string> paths)
      : context_(context),
        file_(file),
        paths_(std::move(paths)),
        is_new_(file != "-" && !exists(file)),
        // Not to hang in open() on a pipe without a reader.
        descriptor_(file == "-"
                        ? -1
                        : open(file.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666)) {
    if (file != "-" && descriptor_.get() == -1) {
      throw Failure(Status::kUsage, with_reason("cannot open " + file, errno));
    }
  }
  ~RecordingFile() {
    if (descriptor_.get() != -1 && is_new_ && !has_begun_) unlink(file_.c_str());
  }
  RecordingFile(const RecordingFile&) = delete;
  RecordingFile& operator=(const RecordingFile&) = delete;

  /// Empties the file and writes the header, once.
  void begin() {
    if (has_begun_) return;
    has_begun_ = true;
    start_ = Clock::now();
    // Pipes and devices have nothing to empty and say so.
    if (ftruncate(descriptor_.get(), 0) != 0 && errno != EINVAL && errno != EBADF) {
      throw Failure(Status::kOwnTrouble, with_reason("cannot write " + file_, errno));
    }
    write(recording_header(std::chrono::system_clock::now(), paths_));
  }

  void add(const Json& message) {
    begin();
    const auto since = Clock::now() - start_;
    write(recording_entry(std::chrono::duration_cast<std::chrono::milliseconds>(since), message));
  }

 private:
  static bool exists(const std::string& file) {
    struct stat status = {};
    return lstat(file.c_str(), &status) == 0;
  }

  void write(const std::string& line) const {
    if (descriptor_.get() == -1) {
      context_.output.text(line);
    } else {
      write_all(context_.events, descriptor_.get(), line, file_);
    }
  }

  const Context& context_;
  const std::string file_;
  const std::vector<std::string> paths_;
  const bool is_new_;
  const UniqueFd descriptor_;
  bool has_begun_ = false;
  TimePoint start_;
};

}  // namespace

Status run_watch(const Context& context) {
  context.events.end_with_output();
  Listener listener(context, context.options.arguments,
                    [&context](const Json& message) { context.output.document(message); });
  listener.subscribe();
  listener.listen();
  return Status::kDone;
}

Status run_record(const Context& context) {
  const auto& arguments = context.options.arguments;
  std::vector<std::string> paths(arguments.begin() + 1, arguments.end());
  if (paths.empty()) paths = {"/serverAssigned", "/rgw", "/interfaces", "/system"};
  std::unique_ptr<RecordingFile> file;
  Listener listener(context, paths, [&file](const Json& message) { file->add(message); });
  // Only now: what cannot be recorded makes no file.
  file = std::make_unique<RecordingFile>(context, arguments[0], paths);
  listener.subscribe();
  file->begin();
  listener.listen();
  return Status::kDone;
}

}  // namespace ppctl
