#include "bench/fleet/device.h"

#include <algorithm>
#include <string>

#include "log_consumer/qv_log_consumer_main.h"
#include "log_consumer/qv_log_consumer_schedule.h"
#include "log_consumer/qv_log_consumer_upload.h"

namespace fleet {
namespace {

constexpr int kMinutesAnHour = 60;

std::uint64_t mix(std::uint64_t value) {
  value = (value ^ (value >> 30U)) * 0xbf58476d1ce4e5b9U;
  value = (value ^ (value >> 27U)) * 0x94d049bb133111ebU;
  return value ^ (value >> 31U);
}

// Texts of the usual length; what they say is of no matter.
std::int64_t request_overhead(const logConsumerType& kind) {
  if (kind.server == kRelaySrv) return 0;
  const UploadForm form = {"AB12345678", uploadName(kind.filetype), "1767225600",
                           uploadName(kind.filetype) + "_20260101_0000.gz"};
  const RequestHead head = frameUpload(form, "logs.example.com", 20'000);
  return static_cast<std::int64_t>(requestSize(head.size(), 0));
}

}  // namespace

std::uint64_t Random::next() {
  state_ += 0x9e3779b97f4a7c15U;
  return mix(state_);
}

std::int64_t Random::below(std::int64_t below) {
  return static_cast<std::int64_t>(next() % static_cast<std::uint64_t>(below));
}

Rules::Rules(const Scenario& scenario)
    : scenario_(scenario),
      interval_(scenario.files_a_day > 0
                    ? static_cast<Moment>(static_cast<double>(kDay) / scenario.files_a_day)
                    : kNever) {
  for (const logConsumerType& kind : scenario.kinds)
    overhead_.push_back(request_overhead(kind));
  for (int delay = 0; delay < 2; ++delay) {
    for (int minute = 0; minute < kMinutesAnHour; ++minute) {
      open_[static_cast<std::size_t>(delay)][static_cast<std::size_t>(minute)] =
          slotIsOpen(minute, delay);
    }
  }
}

bool Rules::slot_is_open(Moment now, int delay_minutes) const {
  const auto minute = static_cast<std::size_t>(now / kMinute % kMinutesAnHour);
  return open_[static_cast<std::size_t>(delay_minutes)][minute];
}

Device::Device(const Rules& rules, std::uint64_t number, Load& load)
    : rules_(rules),
      scenario_(rules.scenario()),
      load_(load),
      random_(mix(number + 1) ^ mix(static_cast<std::uint64_t>(scenario_.seed))),
      kinds_(scenario_.kinds.size()),
      data_upload_(scenario_, load),
      relay_(scenario_, load) {
  for (std::size_t i = 0; i < kinds_.size(); ++i) {
    const Moment phase = rules.file_interval() == kNever || scenario_.together
                             ? 0
                             : random_.below(rules.file_interval());
    const bool produced = scenario_.kinds[i].filetype != kTestFileType;
    if (produced && rules.file_interval() != kNever) kinds_[i].next = phase;
  }
  next_start_ = powered(0, first_start());
}

void Device::live_until(Moment until) {
  while (next_start_ < std::min(until, scenario_.end)) {
    run(next_start_);
    next_start_ = powered(now_, now_ + scenario_.restart + random_pause());
  }
}

std::uint64_t Device::waiting() {
  std::uint64_t waiting = 0;
  for (std::size_t i = 0; i < kinds_.size(); ++i) {
    produce(i, scenario_.end - 1);
    waiting += kinds_[i].waiting;
  }
  return waiting;
}

// The day finds the devices anywhere in their idle cycle.
Moment Device::first_start() {
  const Moment pauses = kSecond * 2 * scenario_.sleep_seconds;
  const Moment end = kSecond * 2 * kSecondsToTerminate + kSecond * scenario_.sleep_seconds;
  return random_.below(pauses + end + scenario_.restart + 1) + random_pause();
}

Moment Device::random_pause() {
  return scenario_.restart_random > 0 ? random_.below(scenario_.restart_random) * kSecond : 0;
}

// A start that power cuts put off.
Moment Device::powered(Moment since, Moment start) {
  for (const Span& cut : scenario_.power_cuts) {
    if (since <= cut.until && start >= cut.from) {
      start = cut.until + scenario_.boot + random_pause();
    }
  }
  return start;
}

void Device::run(Moment start) {
  now_ = started_ = start;
  load_.note(kStart, now_);
  ends_anyway_ = scenario_.end;
  for (const Span& cut : scenario_.power_cuts) {
    if (cut.from >= start) ends_anyway_ = std::min(ends_anyway_, cut.from);
  }
  delay_minutes_ = 0;
  note_activity(start + scenario_.wifi_known);
  data_upload_.start(start);
  relay_.start(start);

  PassEnd end = PassEnd::kNextPass;
  while (end == PassEnd::kNextPass)
    end = pass();
  if (end == PassEnd::kStop) terminate();
  if (dead()) {
    now_ = death_;
    if (killed_ < ends_anyway_) load_.note(kKilled, now_);
  }
  data_upload_.retire(now_);
  relay_.retire(now_);
}

// The configuration thread wakes every -d seconds, counted from the store's last message, and feeds
// the watchdog then. It leaves when it finds that too long has passed since the last activity.
void Device::note_activity(Moment when) {
  const Moment turn = std::max(scenario_.sleep_seconds, 1) * kSecond;
  const Moment awake = started_ + scenario_.wifi_known;
  const Moment too_long = (when / kSecond + kInactivityLimitSeconds + 1) * kSecond;
  gives_up_ = awake + (too_long - awake + turn - 1) / turn * turn;
  killed_ = scenario_.watchdog > 0 ? gives_up_ - turn + scenario_.watchdog : kNever;
  death_ = std::min(ends_anyway_, killed_);
}

Device::PassEnd Device::pass() {
  if (dead()) return PassEnd::kDead;
  if (now_ >= started_ + scenario_.wifi_known) delay_minutes_ = 1;
  keep_connected();
  const bool data_upload_there = data_upload_.done(now_);
  const bool relay_there = relay_.done(now_);
  if (!data_upload_there && !relay_there) {
    if (!dead()) load_.note(kGivenUp, now_);
    now_ += scenario_.sleep_seconds * kSecond;
    return PassEnd::kNextPass;
  }
  if (!dead()) load_.note(kPass, now_);
  if (!scenario_.waits_for_slot && now_ < quiet_until_) return finish(false);
  bool debug_out_of_slot = false;
  for (std::size_t i = 0; i < kinds_.size(); ++i) {
    const logConsumerType& kind = scenario_.kinds[i];
    if (scenario_.waits_for_slot && kind.useRandomDelay &&
        !rules_.slot_is_open(now_, delay_minutes_)) {
      debug_out_of_slot = debug_out_of_slot || kind.filetype == kDebugFileType;
      continue;
    }
    if (!(kind.server == kRelaySrv ? relay_there : data_upload_there)) continue;
    if (!serve(i)) return PassEnd::kDead;
  }
  quiet_until_ = next_file();
  return finish(debug_out_of_slot);
}

// When the next pass has to look at its kinds again.
Moment Device::next_file() const {
  Moment next = kNever;
  for (const Kind& kind : kinds_)
    next = std::min(next, kind.waiting > 0 ? 0 : kind.next);
  return next;
}

void Device::keep_connected() {
  const bool wifi = now_ >= started_ + scenario_.wifi_known;
  const bool data_upload_done = data_upload_.done(now_);
  const bool relay_done = relay_.done(now_);
  if (!wifi) return;
  if (!data_upload_done) now_ = data_upload_.connect(now_);
  if (!relay_done && !dead()) now_ = relay_.connect(now_);
}

Device::PassEnd Device::finish(bool debug_out_of_slot) {
  if (!debug_out_of_slot) return PassEnd::kStop;
  if (now_ >= gives_up_) return PassEnd::kStop;
  now_ += kSecondsBetweenPasses * kSecond;
  skip_quiet_passes();
  return PassEnd::kNextPass;
}

// Passes outside the slot follow each other every second and find the same until the minute
// changes, a connection is lost, or the process is to end.
void Device::skip_quiet_passes() {
  if (!data_upload_.done(now_) || !relay_.done(now_)) return;
  for (const logConsumerType& kind : scenario_.kinds) {
    if (!kind.useRandomDelay) return;
  }
  if (rules_.slot_is_open(now_, delay_minutes_)) return;
  const Moment minute = (now_ / kMinute + 1) * kMinute;
  const Moment change =
      std::min({minute, data_upload_.closes(), relay_.closes(), gives_up_, death_});
  constexpr Moment kPause = kSecondsBetweenPasses * kSecond;
  const Moment quiet = change > now_ ? (change - now_ + kPause - 1) / kPause : 0;
  for (Moment pass = 0; pass < quiet; ++pass)
    load_.note(kPass, now_ + pass * kPause);
  now_ += quiet * kPause;
}

// False when the process has died.
bool Device::serve(std::size_t kind) {
  produce(kind, now_);
  const std::uint64_t listed = kinds_[kind].waiting;
  for (std::uint64_t i = 0; i < std::min<std::uint64_t>(listed, kMaxFilesPerKind); ++i) {
    if (!send(kind)) return !dead();
  }
  return !dead();
}

// One file: false when it ends the kind's turn.
bool Device::send(std::size_t kind) {
  const std::int64_t mean = scenario_.file_bytes;
  const std::int64_t size = mean / 2 + random_.below(mean + 1) + rules_.overhead(kind);
  Connection& connection = connection_of(scenario_.kinds[kind]);
  now_ += kSecondsBeforeSend * kSecond;
  for (int attempt = 0; attempt < kSendAttempts && !dead(); ++attempt) {
    const Connection::Outcome outcome = connection.send(now_, size, death_);
    now_ = outcome.moment;
    if (dead()) return false;
    if (outcome.good) {
      --kinds_[kind].waiting;
      load_.note(kMarked, now_, static_cast<std::int64_t>(kind));
      if (now_ < gives_up_) note_activity(now_);
      return true;
    }
    load_.note(kFailed, now_);
    if (!connection.done(now_)) now_ = connection.connect(now_);
  }
  now_ += kSecondsAfterFailure * kSecond;
  return false;
}

void Device::terminate() {
  for (Connection* const connection : {&data_upload_, &relay_}) {
    if (dead()) return;
    connection->end(now_);
    now_ += kSecondsToTerminate * kSecond;
  }
  now_ += scenario_.sleep_seconds * kSecond;
}

void Device::produce(std::size_t kind, Moment until) {
  Kind& own = kinds_[kind];
  for (; own.next <= until; own.next += rules_.file_interval()) {
    ++own.waiting;
    load_.note(kGenerated, own.next, static_cast<std::int64_t>(kind));
  }
}

Connection& Device::connection_of(const logConsumerType& kind) {
  return kind.server == kRelaySrv ? relay_ : data_upload_;
}

}  // namespace fleet
