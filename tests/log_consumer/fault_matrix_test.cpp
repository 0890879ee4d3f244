// Every way in which a server may misbehave, against the whole upload engine: what is said at which
// priority, what becomes of the file, and that the next file goes through.
//
// One row a behaviour. Each runs towards the data upload server and towards the relay server, in
// plain TCP and over TLS, unless the behaviour belongs to one of these.
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/log_consumer/fault_world.h"

namespace {

using namespace test_support;
using testing::ElementsAreArray;
using testing::IsEmpty;

// --- the texts ---
// {C} is the connection's name at the start of a line, {c} inside one, {N} its number, {F} the
// file, {P} the port.

using Lines = std::vector<std::string>;

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Lines operator*(int times, const Lines& lines) {
  return times == 0 ? Lines{} : lines + (times - 1) * lines;
}

const Lines kTurn = {"6 Filename {F} is not read only",
                     "7 Sleeping 5 seconds before next file send"};
const Lines kWritten = {"7 Writing file to mg_write", "7 mg_write returned #, file length is #"};
const Lines kReply = {"7 Response event"};
const Lines k200 = {"7 Response event", "6 Got 200 good resp from server"};
const Lines kUnusable = {"7 Response event", "6 Invalid URI in server response"};
const Lines kClosed = {"7 {C} connection closed"};
const Lines kGood = {"6 Good response for send"};
const Lines kBad = {"6 Bad response for send", "6 Send error"};
const Lines kTimeOut = Lines{"6 Timeout for send. serverType = {N}"} + kBad;
const Lines kConnecting = {"6 Connecting to 127.0.0.1:{P}"};
const Lines kStarted = {"6 Mongoose server started."};
const Lines kAsked = {"7 {C} client connection sent"};
const Lines kStands = {"7 Connect event from {c}"};
const Lines kReconnect = kConnecting + kStarted + kAsked + kStands;
const Lines kRefused = kConnecting + kStarted + kAsked + kClosed;
const Lines kMarked = {"6 Sending {F} went okay"};
const Lines kGivenUp = {"3 Send {F} failed. Sleeping 10 seconds."};

const Lines kDown = {"7 {D} connection not done"};
const Lines kNoneUp = {"7 data upload connection not done con = 0",
                       "7 relay server connection not done con = 0"};
const Lines kOtherDown = {"7 {o} connection not done con = 0"};

/// A failed answer with this status line, without and with what it costs.
Lines bad_code(const std::string& status) {
  return kReply + Lines{"6 Got bad code from server: " + status} + kBad;
}

// What most rows end with: the second attempt, on a fresh connection, is accepted.
const Lines kSecondIsAccepted = kReconnect + kWritten + k200 + kGood + kMarked;

// --- the rows ---

enum Transport { kPlain = 1, kTls = 2, kBoth = 3 };
enum class Fate {
  kSent,         ///< in the first start, as the second file
  kSecondStart,  ///< the file is sent by the second start; the second file goes out in the first
  kAllInSecond,  ///< both are
};

struct Row {
  std::string name;
  std::function<std::vector<PeerPlan>()> peers;
  Lines turn;  ///< of the first file
  Fate fate = Fate::kSent;
  std::size_t copies = 1;  ///< of the first file that reach a server, whole
  Lines way = {};          ///< to the first connection that stands; empty: straight
  Transport transport = kBoth;
  std::size_t file_bytes = 601;
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

std::vector<PeerPlan> script(Script steps) {
  PeerPlan plan;
  plan.script = std::move(steps);
  return {plan};
}

PeerPlan without_script(PeerPlan::Kind kind) {
  PeerPlan plan;
  plan.kind = kind;
  return plan;
}

const std::string kOk = reply("200 OK");

Row status_row(const std::string& name, const std::string& status, const std::string& bytes) {
  const int code = std::stoi(status);
  return {name,
          [=] {
            return script({request(), answer(code, bytes), request(), answer(code, bytes)});
          },
          kTurn + 2 * (kWritten + bad_code(status)) + kGivenUp, Fate::kSecondStart, 3};
}

Row status_row(const std::string& name, const std::string& status) {
  return status_row(name, status, reply(status));
}

// The peer that a row describes, and then the file goes out at once.
Row broken_once(const std::string& name, std::function<Script()> steps, const Lines& seen,
                std::size_t copies) {
  return {name, [steps] { return script(steps()); }, kTurn + seen + kSecondIsAccepted, Fate::kSent,
          copies};
}

// A connection that was lost before the request: the whole time-out, then a fresh one.
Row lost_in_the_pause(const std::string& name, const Step& end, const Step& then = run([] {})) {
  Row row;
  row.name = name;
  row.peers = [=] { return script({until_the_pause(), end, then}); };
  row.turn = kTurn + kClosed + kTimeOut + kSecondIsAccepted;
  return row;
}

// A connection that was lost before the request, and a server that does not listen again yet when
// it is to be reconnected. When it does, the first file has had its two attempts.
Row restarted_in_the_pause(const std::string& name, std::vector<PeerPlan> refusals,
                           const Lines& seen) {
  Row row;
  row.name = name;
  row.peers = [refusals] {
    std::vector<PeerPlan> peers = script({until_the_pause(), close_connection()});
    peers.insert(peers.end(), refusals.begin(), refusals.end());
    return peers;
  };
  row.turn = kTurn + kClosed + kTimeOut + seen + kGivenUp;
  row.fate = Fate::kSecondStart;
  return row;
}

// The server never says what could be judged: both attempts, and those of the next file, time out.
Row stuck(const std::string& name, std::function<Script()> steps, std::size_t copies) {
  return {name, [steps] { return script(steps()); }, kTurn + 2 * (kWritten + kTimeOut) + kGivenUp,
          Fate::kAllInSecond, copies};
}

const Identity& identity(const CertificateFacts& facts) {
  static std::map<std::string, Identity> made;
  const auto known = made.find(facts.common_name);
  if (known != made.end()) return known->second;
  return made.emplace(facts.common_name, make_self_signed(facts)).first->second;
}

// The way when the first attempt fails and the second one stands.
Lines way_after(const Lines& failure) {
  return kDown + kConnecting + kAsked + failure + kNoneUp + kDown + kReconnect + kOtherDown;
}

Row unfit(const std::string& name, std::function<PeerPlan()> peer, const Lines& failure,
          Transport transport) {
  Row row;
  row.name = name;
  row.peers = [peer] { return std::vector<PeerPlan>{peer()}; };
  row.way = way_after(failure);
  row.turn = kTurn + kWritten + k200 + kGood + kMarked;
  row.transport = transport;
  return row;
}

const Lines kAccepted = kTurn + kWritten + k200 + kGood + kMarked;

Row good(const std::string& name, std::function<Script()> steps) {
  return {name, [steps] { return script(steps()); }, kAccepted};
}

std::vector<Row> connecting_rows() {
  Row refused;
  refused.name = "NobodyListens";
  refused.peers = [] {
    return std::vector<PeerPlan>{without_script(PeerPlan::kRefuse),
                                 without_script(PeerPlan::kRefuse)};
  };
  refused.way = kDown + kConnecting + kAsked + kClosed + kNoneUp + kDown + kRefused + kNoneUp +
                kDown + kReconnect + kOtherDown;
  refused.turn = kAccepted;
  Row deaf = refused;
  deaf.name = "AddressNeverAnswers";
  deaf.peers = [] { return std::vector<PeerPlan>{without_script(PeerPlan::kNeverAnswer)}; };
  deaf.way = kDown + kConnecting + kAsked + kNoneUp + kDown + kConnecting + kClosed + kStarted +
             kAsked + kStands + kOtherDown;
  Row nameless = refused;
  nameless.name = "NameDoesNotResolve";
  nameless.peers = [] { return std::vector<PeerPlan>{without_script(PeerPlan::kUnresolvable)}; };
  // No connection was made, so the second attempt replaces no server.
  nameless.way = kDown + kConnecting + Lines{"7 {C} client connection failed"} + kNoneUp + kDown +
                 kConnecting + kAsked + kStands + kOtherDown;
  return {refused, deaf, nameless,
          unfit(
              "AcceptsAndClosesAtOnce", [] { return script({close_connection()})[0]; },
              kStands + kClosed, kBoth)};
}

std::vector<Row> request_rows() {
  const auto inside = [](const std::string& name, const Step& end) {
    Row row = broken_once(
        name,
        [end] {
          return Script{part_of_request(100'000), end};
        },
        kWritten + kClosed + kBad, 1);
    row.file_bytes = 300'007;
    return row;
  };
  Row slowly = good("ReadsALargeRequestInSmallPieces", [] {
    Script steps(50, part_of_request(4'001));
    return steps;
  });
  slowly.file_bytes = 300'007;
  return {
      lost_in_the_pause("ClosesInThePause", close_connection()),
      lost_in_the_pause("CutsInThePause", cut_connection()),
      lost_in_the_pause("HalfClosesInThePause", half_close(), until_client_closes()),
      lost_in_the_pause("ResetsInThePause", reset_connection()),
      lost_in_the_pause("AnswersUnaskedInThePause", send_bytes(kOk), until_client_closes()),
      lost_in_the_pause("SaysInThePauseThatItGivesUp",
                        send_bytes("HTTP/1.1 408 Request Timeout\r\nContent-Length: 0\r\n\r\n"),
                        until_client_closes()),
      restarted_in_the_pause("RestartsInThePause", {without_script(PeerPlan::kRefuse)},
                             kRefused + kTimeOut + kReconnect),
      restarted_in_the_pause(
          "RestartsInThePauseAndRefusesTheRequest", {without_script(PeerPlan::kRefuseLater)},
          kConnecting + kStarted + kAsked + kWritten + kClosed + kBad + kReconnect),
      restarted_in_the_pause("RestartsInThePauseAndRefusesTwice",
                             {without_script(PeerPlan::kRefuse), without_script(PeerPlan::kRefuse)},
                             kRefused + kTimeOut + kRefused),
      inside("ClosesInsideTheRequest", close_connection()),
      inside("ResetsInsideTheRequest", reset_connection()),
      slowly,
      good("ReadsOneByteASecond",
           [] {
             Script steps;
             for (int i = 0; i < 60; ++i) {
               steps.push_back(part_of_request(1));
               steps.push_back(wait_seconds(1));
             }
             return steps;
           }),
      stuck(
          "AcceptsAndHangs", [] { return Script{silence()}; }, 1),
  };
}

std::vector<Row> broken_answer_rows() {
  const auto after_request = [](std::vector<Step> steps) {
    return [steps] {
      Script whole = {request()};
      whole.insert(whole.end(), steps.begin(), steps.end());
      return whole;
    };
  };
  const Lines closed = kWritten + kClosed + kBad;
  return {
      broken_once("ClosesBeforeTheAnswer", after_request({close_connection()}), closed, 2),
      broken_once("ResetsBeforeTheAnswer", after_request({reset_connection()}), closed, 2),
      broken_once("HalfClosesBeforeTheAnswer", after_request({half_close(), until_client_closes()}),
                  closed, 2),
      broken_once("ClosesInsideTheStatusLine",
                  after_request({send_bytes("HTTP/1.1 20"), close_connection()}), closed, 2),
      broken_once("ClosesInsideTheHeaders",
                  after_request({send_bytes("HTTP/1.1 200 OK\r\nContent-Le"), close_connection()}),
                  closed, 2),
      broken_once("ClosesAfterTheHeaders",
                  after_request({send_bytes("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n"),
                                 close_connection()}),
                  closed, 2),
      broken_once("ClosesInsideTheBody",
                  after_request({send_bytes("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n{\"co"),
                                 close_connection()}),
                  closed, 2),
      broken_once("ResetsInsideTheBody",
                  after_request({send_bytes("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n{\"co"),
                                 reset_connection()}),
                  closed, 2),
      broken_once("ClosesInsideAChunk",
                  after_request({send_bytes("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                                            "a\r\n{\"co"),
                                 close_connection()}),
                  closed, 2),
      broken_once("ClosesRightAfterAGoodAnswer",
                  after_request({answer(200, kOk), close_connection()}),
                  kWritten + k200 + kClosed + kBad, 2),
      broken_once("HalfClosesAfterAGoodAnswer",
                  after_request({answer(200, kOk), half_close(), until_client_closes()}),
                  kWritten + k200 + kClosed + kBad, 2),
      broken_once(
          "GivesNoLengthAndCloses",
          after_request({answer(200, "HTTP/1.1 200 OK\r\n\r\n{\"code\":1}"), close_connection()}),
          kWritten + k200 + kClosed + kBad, 2),
      broken_once(
          "GivesTooShortALength",
          after_request({answer(200, "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\n{\"code\":1}"),
                         until_client_closes()}),
          kWritten + k200 + kClosed + kBad, 2),
      broken_once("AnswersTwiceAtOnce",
                  after_request({answer(200, kOk + kOk), until_client_closes()}),
                  kWritten + k200 + kClosed + kBad, 2),
  };
}

std::vector<Row> odd_answer_rows() {
  const auto unusable = [](const std::string& name, const std::string& bytes) {
    return broken_once(
        name,
        [bytes] {
          return Script{request(), answer(0, bytes), until_client_closes()};
        },
        kWritten + kUnusable + kClosed + kBad, 2);
  };
  const auto giving = [](const std::string& name, const std::string& bytes, std::size_t piece = 0) {
    return good(name, [=] { return Script{request(), answer(200, bytes, piece)}; });
  };
  return {
      unusable("TalksAnotherProtocol", "220 mail.example.com ESMTP\r\n"),
      unusable("AnswersGarbage", std::string("\x16\x03\x01\x00\xff\x00garbage\n\n\n", 16)),
      unusable("AnswersGiantHeaders",
               "HTTP/1.1 200 OK\r\nX-Much: " + std::string(70'000, 'x') + "\r\n\r\n"),
      unusable("AnswersAGiantBody", "HTTP/1.1 200 OK\r\nContent-Length: 2000000\r\n\r\n"),
      unusable("GivesANegativeLength", "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n"),
      unusable("AnswersABrokenChunk",
               "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nnot a number\r\n"),
      giving("AnswersInSingleBytes", kOk, 1),
      giving("AnswersInChunks",
             "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n{\"cod\r\n5\r\ne\":1}\r\n"
             "0\r\n\r\n"),
      giving("AnswersWithoutABody", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"),
      giving("AnswersInHttp10", "HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\n{}"),
      giving("SaysContinueFirst", "HTTP/1.1 100 Continue\r\n\r\n" + kOk),
      giving("SaysEarlyHintsFirst", "HTTP/1.1 103 Early Hints\r\nLink: </>\r\n\r\n" + kOk),
      good("AnswersOneByteASecond",
           [] {
             Script steps = {request()};
             for (const char byte : kOk.substr(0, kOk.size() - 1)) {
               steps.push_back(send_bytes({byte}));
               steps.push_back(wait_seconds(1));
             }
             steps.push_back(answer(200, kOk.substr(kOk.size() - 1)));
             return steps;
           }),
      good("AnswersWithinTheTimeOut",
           [] {
             return Script{request(), wait_seconds(175), answer(200, kOk)};
           }),
      stuck(
          "SaysContinueAndNothingElse",
          [] {
            return Script{request(), send_bytes("HTTP/1.1 100 Continue\r\n\r\n"), silence()};
          },
          2),
      stuck(
          "GivesNoLengthAndStaysOpen",
          [] {
            return Script{request(), send_bytes("HTTP/1.1 200 OK\r\n\r\n{}"), silence()};
          },
          2),
      stuck(
          "GivesTooLongALength",
          [] {
            return Script{request(), send_bytes("HTTP/1.1 200 OK\r\nContent-Length: 999\r\n\r\n{}"),
                          silence()};
          },
          2),
  };
}

std::vector<Row> status_rows() {
  return {
      status_row("Status201", "201 Created"),
      status_row("Status202", "202 Accepted"),
      status_row("Status204", "204 No Content", "HTTP/1.1 204 No Content\r\n\r\n"),
      status_row("Status301", "301 Moved Permanently"),
      status_row("Status304", "304 Not Modified", "HTTP/1.1 304 Not Modified\r\n\r\n"),
      status_row("Status307", "307 Temporary Redirect"),
      status_row("Status400", "400 Bad Request"),
      status_row("Status401", "401 Unauthorized"),
      status_row("Status404", "404 Not Found"),
      status_row("Status413", "413 Content Too Large"),
      status_row("Status429", "429 Too Many Requests"),
      status_row("Status500", "500 Internal Server Error"),
      status_row("Status503", "503 Service Unavailable"),
      status_row("Status599", "599 Whatever", "HTTP/1.1 599 Whatever\r\nContent-Length: 0\r\n\r\n"),
  };
}

std::vector<Row> tls_rows() {
  const auto with_certificate = [](const CertificateFacts& facts) {
    return [facts] {
      PeerPlan plan = script({silence()})[0];
      plan.tls = &identity(facts);
      return plan;
    };
  };
  const auto other_protocol = [](Script steps) {
    return [steps] {
      PeerPlan plan = script(steps)[0];
      plan.other_protocol = true;
      return plan;
    };
  };
  const Lines refused = {"3 TLS: certificate of 127.0.0.1 refused: self-signed certificate"};
  Row hangs = unfit("HangsInTheHandshake", other_protocol({silence()}), {}, kTls);
  hangs.peers = [] {
    PeerPlan plan = script({silence()})[0];
    plan.other_protocol = true;
    plan.never_stands = true;
    return std::vector<PeerPlan>{plan};
  };
  hangs.way = kDown + kConnecting + kAsked + kNoneUp + kDown + kConnecting + kClosed + kStarted +
              kAsked + kStands + kOtherDown;
  return {
      unfit("ShowsASelfSignedCertificate", with_certificate({"self-signed", "IP:127.0.0.1", -1, 1}),
            refused + kClosed, kTls),
      unfit("ClosesInTheHandshake", other_protocol({expect_bytes(20), close_connection()}),
            Lines{"3 TLS: handshake with 127.0.0.1 failed: unexpected eof while reading"} + kClosed,
            kTls),
      unfit("AnswersTheHandshakeInPlainText",
            other_protocol({expect_bytes(20), send_bytes("HTTP/1.1 400 Bad Request\r\n\r\n"),
                            until_client_closes()}),
            Lines{"3 TLS: handshake with 127.0.0.1 failed: wrong version number"} + kClosed, kTls),
      hangs,
  };
}

std::vector<Row> all_rows() {
  std::vector<Row> rows;
  for (const auto& group : {connecting_rows(), request_rows(), broken_answer_rows(),
                            odd_answer_rows(), status_rows(), tls_rows()}) {
    rows.insert(rows.end(), group.begin(), group.end());
  }
  return rows;
}

// --- the test ---

class FaultMatrix : public testing::TestWithParam<Row> {
 protected:
  void run_towards(servers server, bool tls);

  Lines filled(const Lines& lines, const FaultWorld& world) const;

  bool relay_ = false;
  bool tls_ = false;
};

void replace_all(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t place = 0; (place = text.find(from, place)) != std::string::npos;
       place += to.size()) {
    text.replace(place, from.size(), to);
  }
}

Lines FaultMatrix::filled(const Lines& lines, const FaultWorld& world) const {
  const std::vector<std::pair<std::string, std::string>> values = {
      {"{D}", relay_ ? "Relay server socket" : "Data upload mongoose"},
      {"{C}", relay_ ? "Relay server" : "Data upload"},
      {"{c}", relay_ ? "relay srv" : "data upload srv"},
      {"{o}", relay_ ? "data upload" : "relay server"},
      {"{N}", relay_ ? "1" : "0"},
      {"{P}", tls_ ? "443" : "80"},
      {"{F}", world.first()},
  };
  Lines result = lines;
  for (std::string& line : result) {
    for (const auto& [name, value] : values)
      replace_all(line, name, value);
  }
  return result;
}

void FaultMatrix::run_towards(servers server, bool tls) {
  const Row& row = GetParam();
  SCOPED_TRACE(std::string(server == kRelaySrv ? "relay" : "data upload") +
               (tls ? ", TLS" : ", plain"));
  relay_ = server == kRelaySrv;
  tls_ = tls;
  FaultWorld world(server, tls);
  world.resize_files(row.file_bytes);
  world.next_peers(row.peers());

  world.start();
  const Lines straight = kDown + kConnecting + kAsked + kStands + kOtherDown;
  EXPECT_THAT(world.way_to_connection(),
              ElementsAreArray(filled(row.way.empty() ? straight : row.way, world)));
  EXPECT_THAT(world.turn_of(world.first()), ElementsAreArray(filled(row.turn, world)));
  EXPECT_EQ(world.sent(world.first()), row.fate == Fate::kSent);
  EXPECT_EQ(world.sent(world.second()), row.fate != Fate::kAllInSecond);

  world.start();
  EXPECT_TRUE(world.sent(world.first()));
  EXPECT_TRUE(world.sent(world.second()));
  EXPECT_EQ(world.copies(world.first()), row.copies);
  for (std::size_t i = 1; i < world.connects().size(); ++i) {
    EXPECT_GE(world.connects()[i] - world.connects()[i - 1], 3) << "attempts too close together";
  }
  EXPECT_THAT(world.complaints(), IsEmpty());
}

// Two starts of the service: texts and their order, files and their marks, whole copies at the
// server, seconds between two attempts to connect.
TEST_P(FaultMatrix, LosesMarksAndHoldsUpNothing) {
  for (const servers server : {kDataUploadSrv, kRelaySrv}) {
    if ((GetParam().transport & kPlain) != 0) run_towards(server, false);
    if ((GetParam().transport & kTls) != 0) run_towards(server, true);
  }
}

INSTANTIATE_TEST_SUITE_P(Server, FaultMatrix, testing::ValuesIn(all_rows()),
                         [](const auto& row) { return row.param.name; });

}  // namespace
