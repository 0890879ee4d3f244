#include "tools/lctimeline/log_line.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <nlohmann/json.hpp>

namespace lctimeline {

namespace {

using Json = nlohmann::json;

constexpr int kDaysPerEra = 146097;  // days of 400 years
constexpr Microseconds kDay = 86400 * kSecond;
constexpr std::string_view kBlanks = " \t\r\n";

// Days since 1970-01-01 of a date of the Gregorian calendar, counted from a year that starts in
// March, so that the day that leap years add comes last.
std::int64_t days_since_epoch(int year, int month, int day) {
  constexpr int kMonthsAfterFebruary = 2;
  const std::int64_t shifted = year - (month <= kMonthsAfterFebruary ? 1 : 0);
  const std::int64_t era = shifted / 400;
  const std::int64_t year_of_era = shifted - era * 400;
  const std::int64_t day_of_year =
      (153 * (month + (month > kMonthsAfterFebruary ? -3 : 9)) + 2) / 5 + day - 1;
  const std::int64_t day_of_era =
      year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  constexpr std::int64_t kEpoch = 719468;
  return era * kDaysPerEra + day_of_era - kEpoch;
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// Takes text from the front of a line, piece by piece.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  std::string_view rest() const { return rest_; }

  bool character(char wanted) {
    if (rest_.empty() || rest_.front() != wanted) return false;
    rest_.remove_prefix(1);
    return true;
  }

  /// Exactly `digits` digits.
  bool number(std::size_t digits, int& value) {
    if (rest_.size() < digits ||
        !std::all_of(rest_.begin(), rest_.begin() + static_cast<std::ptrdiff_t>(digits), is_digit))
      return false;
    std::from_chars(rest_.data(), rest_.data() + digits, value);
    rest_.remove_prefix(digits);
    return true;
  }

  /// A fraction's digits, as microseconds; further digits are read and dropped.
  bool fraction(int& microseconds) {
    microseconds = 0;
    int digits = 0;
    for (; !rest_.empty() && is_digit(rest_.front()); ++digits) {
      if (digits < 6) microseconds = microseconds * 10 + (rest_.front() - '0');
      rest_.remove_prefix(1);
    }
    for (int missing = digits; missing < 6; ++missing)
      microseconds *= 10;
    return digits > 0;
  }

  /// Up to the next blank, which is taken too.
  std::string_view word() {
    const std::size_t end = std::min(rest_.find(' '), rest_.size());
    const std::string_view found = rest_.substr(0, end);
    rest_.remove_prefix(std::min(end + 1, rest_.size()));
    return found;
  }

 private:
  std::string_view rest_;
};

struct TimeOfDay {
  int hour = 0;
  int minute = 0;
  int second = 0;
};

bool read_time_of_day(Scanner& scanner, TimeOfDay& time) {
  return scanner.number(2, time.hour) && time.hour < 24 && scanner.character(':') &&
         scanner.number(2, time.minute) && time.minute < 60 && scanner.character(':') &&
         scanner.number(2, time.second) && time.second <= 60;
}

Microseconds moment(int year, int month, int day, const TimeOfDay& time) {
  return days_since_epoch(year, month, day) * kDay +
         ((time.hour * 60 + time.minute) * 60 + time.second) * kSecond;
}

// "Z", "+0100", "+01:00" or nothing, as microseconds east of UTC.
bool read_zone(Scanner& scanner, Microseconds& east) {
  east = 0;
  if (scanner.character('Z')) return true;
  const bool plus = scanner.character('+');
  if (!plus && !scanner.character('-')) return true;
  int hours = 0;
  int minutes = 0;
  if (!scanner.number(2, hours)) return false;
  scanner.character(':');
  if (!scanner.number(2, minutes)) return false;
  constexpr Microseconds kMinute = 60 * kSecond;
  east = (hours * 60 + minutes) * kMinute * (plus ? 1 : -1);
  return true;
}

// A date and time at the front of the line.
bool read_iso_time(Scanner& scanner, Microseconds& time) {
  int year = 0;
  int month = 0;
  int day = 0;
  TimeOfDay of_day;
  if (!scanner.number(4, year) || !scanner.character('-') || !scanner.number(2, month) ||
      !scanner.character('-') || !scanner.number(2, day) || month < 1 || month > 12 || day < 1 ||
      day > 31 || (!scanner.character('T') && !scanner.character(' ')) ||
      !read_time_of_day(scanner, of_day))
    return false;
  int fraction = 0;
  if ((scanner.character('.') || scanner.character(',')) && !scanner.fraction(fraction))
    return false;
  Microseconds east = 0;
  if (!read_zone(scanner, east)) return false;
  time = moment(year, month, day, of_day) + fraction - east;
  return true;
}

int month_number(std::string_view name) {
  constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const auto* const found = std::find(kMonths.begin(), kMonths.end(), name);
  return found == kMonths.end() ? 0 : static_cast<int>(found - kMonths.begin()) + 1;
}

// The latest year that puts the date no later than a day after `written`.
Microseconds in_fitting_year(int month, int day, const TimeOfDay& time, Microseconds written) {
  constexpr Microseconds kYear = 365 * kDay;
  int year = static_cast<int>(1970 + written / kYear) + 1;
  while (year > 1970 && moment(year, month, day, time) > written + kDay)
    --year;
  return moment(year, month, day, time);
}

// "Feb  3 09:05:00"
bool read_syslog_time(Scanner& scanner, Microseconds written, Microseconds& time) {
  const int month = month_number(scanner.word());
  if (month == 0) return false;
  int day = 0;
  const bool padded = scanner.character(' ');
  TimeOfDay of_day;
  if (!scanner.number(padded ? 1 : 2, day) || day < 1 || day > 31 || !scanner.character(' ') ||
      !read_time_of_day(scanner, of_day))
    return false;
  time = in_fitting_year(month, day, of_day, written);
  return true;
}

bool is_service(std::string_view ident) {
  // Before it opens syslog a program goes by its file's name.
  return ident == "LogConsumer" || ident == "log_consumer";
}

std::string without_line_end(std::string_view text) {
  const std::size_t last = text.find_last_not_of(kBlanks);
  return std::string(text.substr(0, last == std::string_view::npos ? 0 : last + 1));
}

LogLine foreign() {
  return {LineKind::kForeign, 0, {}};
}

LogLine from_service(Microseconds time, std::string_view text) {
  return {LineKind::kService, time, without_line_end(text)};
}

// What follows the time: host, perhaps BusyBox's "user.info", then "ident[12]: text".
LogLine after_the_time(Scanner scanner, Microseconds time) {
  if (!scanner.character(' ')) return {};
  constexpr int kWordsUpToIdent = 3;
  for (int words = 0; words < kWordsUpToIdent; ++words) {
    std::string_view word = scanner.word();
    if (word.empty() || word.back() != ':') continue;
    word.remove_suffix(1);
    const std::string_view ident = word.substr(0, word.find('['));
    return is_service(ident) ? from_service(time, scanner.rest()) : foreign();
  }
  return foreign();
}

std::string text_member(const Json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

// The journal writes a text with other bytes than printable UTF-8 as an array of them.
std::string journal_text(const Json& message) {
  if (message.is_string()) return message.get<std::string>();
  std::string text;
  if (!message.is_array()) return text;
  for (const Json& byte : message) {
    if (byte.is_number_integer()) text.push_back(static_cast<char>(byte.get<int>() & 0xff));
  }
  return text;
}

LogLine journal_entry(const Json& object, const std::string& stamp) {
  Microseconds time = 0;
  const auto read = std::from_chars(stamp.data(), stamp.data() + stamp.size(), time);
  constexpr Microseconds kLatest = 253402300800 * kSecond;  // the year 10000
  if (read.ec != std::errc() || read.ptr != stamp.data() + stamp.size() || time < 0 ||
      time >= kLatest)
    return {};
  if (!is_service(text_member(object, "SYSLOG_IDENTIFIER"))) return foreign();
  const auto message = object.find("MESSAGE");
  return from_service(time, message == object.end() ? std::string() : journal_text(*message));
}

LogLine record_entry(const Json& object) {
  if (!object.contains("time") || !is_service(text_member(object, "ident"))) return foreign();
  const auto time = parse_iso_time(text_member(object, "time"));
  if (!time) return {};
  return from_service(*time, text_member(object, "text"));
}

LogLine json_entry(std::string_view line) {
  const Json object = Json::parse(line.begin(), line.end(), nullptr, false);
  if (!object.is_object()) return {};
  const std::string stamp = text_member(object, "__REALTIME_TIMESTAMP");
  return stamp.empty() ? record_entry(object) : journal_entry(object, stamp);
}

}  // namespace

std::optional<Microseconds> parse_iso_time(std::string_view text) {
  Scanner scanner(text);
  Microseconds time = 0;
  if (!read_iso_time(scanner, time) || !scanner.rest().empty()) return std::nullopt;
  return time;
}

LogLine parse_line(std::string_view line, Microseconds written) {
  if (line.find_first_not_of(kBlanks) == std::string_view::npos) return {LineKind::kBlank, 0, {}};
  if (line.front() == '{') return json_entry(line);
  if (line.substr(0, 3) == "-- ") return foreign();
  Microseconds time = 0;
  Scanner scanner(line);
  if (read_iso_time(scanner, time)) return after_the_time(scanner, time);
  scanner = Scanner(line);
  if (read_syslog_time(scanner, written, time)) return after_the_time(scanner, time);
  return {};
}

}  // namespace lctimeline
