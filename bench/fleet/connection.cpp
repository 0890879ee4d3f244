#include "bench/fleet/connection.h"

#include <algorithm>

#include "log_consumer/qv_log_consumer_mg.h"

namespace fleet {
namespace {

constexpr Moment kIdle = kSecondsBetweenIdlePolls * kSecond;
constexpr Moment kLook = kSecondsBetweenChecks * kSecond;
constexpr Moment kTimeOut = kReplyChecks * kLook;

// Linux' TCP: the first greeting is repeated after 1, 3, 7 ... 63 s and given up after 127 s; what
// was sent is repeated after 0.2, 0.6, 1.4 s ..., never more than 120 s apart, and given up when
// about 924.6 s have passed.
constexpr int kGreetings = 7;
constexpr Moment kFirstRepeat = 200;
constexpr Moment kLongestRepeat = 120 * kSecond;
constexpr Moment kRepeatsEnd = 924'600;

// The first moment of a grid at or after `now`.
Moment on_grid(Moment from, Moment step, Moment now) {
  if (now <= from) return from;
  return from + (now - from + step - 1) / step * step;
}

// The first one after it.
Moment on_grid_after(Moment from, Moment step, Moment now) {
  return on_grid(from, step, now + 1);
}

}  // namespace

void Connection::start(Moment now) {
  connected_before_ = false;
  thread_from_ = now;
  begun_ = stands_ = closes_ = dead_from_ = kNever;
}

Moment Connection::connect(Moment now) {
  load_->note(kConnect, now);
  if (connected_before_) {
    end(now);
    now += kSecondsToStop * kSecond;
    thread_from_ = now;
  }
  connected_before_ = true;
  now += scenario_->resolve;
  begin(now);
  return now;
}

void Connection::begin(Moment asked) {
  begun_ = on_grid(thread_from_, kIdle, asked);
  stands_ = begun_ + scenario_->handshake();
  closes_ = dead_from_ = kNever;
  const Outage* const outage = scenario_->outage_at(begun_);
  if (outage != nullptr && outage->fault == Fault::kRefuse) {
    stands_ = kNever;
    closes_ = begun_ + scenario_->round_trip;
  } else if (outage != nullptr && outage->fault == Fault::kDrop) {
    stands_ = kNever;
    Moment greeting = begun_;
    for (int i = 0; i < kGreetings && stands_ == kNever; ++i) {
      if (greeting >= outage->span.until) stands_ = greeting + scenario_->handshake();
      if (stands_ == kNever) greeting += kSecond << i;
    }
    if (stands_ == kNever) closes_ = greeting;
  }
  last_event_ = begun_;
  if (stands_ == kNever) return;
  const Outage* const cut = scenario_->next_cut(stands_ - scenario_->handshake() + 1);
  if (cut == nullptr) return;
  (cut->fault == Fault::kRefuse ? closes_ : dead_from_) = cut->span.from;
  if (dead_from_ < stands_) closes_ = dead_from_ + kRepeatsEnd;
  if (std::min(closes_, dead_from_) < stands_) stands_ = kNever;
}

// A poll begins at `begun_`, at each event, and two seconds after a poll that brought none. The
// engine is late by a little, as all sleepers are: a poll of the same moment has just gone by.
Moment Connection::next_poll(Moment now) const {
  if (begun_ == kNever || now < begun_) return begun_;
  if (now < stands_ && stands_ != kNever) {
    return std::min(stands_, on_grid_after(begun_, kPollMilliseconds, now));
  }
  const Moment from = stands_ == kNever ? begun_ : std::max(stands_, last_event_);
  return on_grid_after(from, kPollMilliseconds, now);
}

// The serving thread leaves with the end of its present poll, or of its pause.
Moment Connection::thread_ends(Moment now) const {
  const bool polls = now >= begun_ && now < closes_;
  return polls ? std::min(next_poll(now), closes_) : on_grid(thread_from_, kIdle, now);
}

void Connection::end(Moment now) {
  retire(thread_ends(now));
}

void Connection::retire(Moment now) {
  if (begun_ < now) load_->note(kAttempt, begun_);
  if (stands_ <= now && stands_ < closes_) {
    load_->note(kEstablished, stands_);
    load_->note(kClosed, std::min(now, closes_));
  }
  begun_ = stands_ = closes_ = kNever;
}

// The server has forgotten the connection: the first packet that reaches it is answered by a reset.
Moment Connection::lost_at(Moment written) const {
  const Outage* const outage = scenario_->outage_at(written);
  if (outage == nullptr || outage->fault != Fault::kDrop) return written + scenario_->round_trip;
  Moment packet = written;
  for (Moment pause = kFirstRepeat; packet < outage->span.until;
       pause = std::min(2 * pause, kLongestRepeat)) {
    packet += pause;
    if (packet - written > kRepeatsEnd) return written + kRepeatsEnd;
  }
  return packet + scenario_->round_trip;
}

// When the answer is here; kNever if none comes. May find that the connection will be lost.
Moment Connection::answered(Moment sent, Moment arrived) {
  if (sent >= dead_from_) {
    closes_ = std::min(closes_, lost_at(sent));
    return kNever;
  }
  const Outage* const outage = scenario_->outage_at(arrived);
  if (outage != nullptr && outage->fault == Fault::kSilent) return kNever;
  const Moment here = arrived + scenario_->answer + scenario_->round_trip / 2;
  return here < dead_from_ ? here : kNever;
}

Connection::Outcome Connection::send(Moment now, std::int64_t bytes, Moment death) {
  const Moment written = next_poll(now);
  Moment answer = kNever;
  bool good = false;
  if (written < std::min(closes_, now + kTimeOut)) {
    const Moment sent = stands_ == kNever ? kNever : std::max(written, stands_);
    if (sent < std::min(closes_, death)) {
      load_->note_request(sent, bytes);
      const Moment arrived = sent + scenario_->upload(bytes) + scenario_->round_trip / 2;
      answer = answered(sent, arrived);
      const Outage* const outage = scenario_->outage_at(arrived);
      good = outage == nullptr || outage->fault != Fault::kError;
    }
  }
  // A close before `now` has told the engine nothing: it waits for a poll that does not come.
  const Moment lost = closes_ >= now ? closes_ : kNever;
  const Moment outcome = std::min(answer, lost);
  if (outcome > now + kTimeOut - kLook) return {now + kTimeOut, false};
  if (answer < lost) last_event_ = answer;
  if (good && answer < std::min(lost, death)) load_->note(kAccepted, answer);
  // A close that comes before the engine looks makes a good answer a bad one.
  const Moment look = on_grid(now, kLook, outcome);
  return {look, good && look < lost};
}

}  // namespace fleet
