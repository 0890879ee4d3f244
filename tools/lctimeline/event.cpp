#include "tools/lctimeline/event.h"

#include <algorithm>
#include <utility>

namespace lctimeline {

namespace {

struct Known {
  What what;
  std::string_view format;
  std::optional<Server> server = std::nullopt;
};

constexpr Known kKnown[] = {
    {What::kStarted, "[ST]:BT installed for %s"},
    {What::kStarted, "Build@ %s %s"},
    {What::kSignal, "[ST]: signal received %d"},
    {What::kCrashed, "[ST]:----- stack trace start %d------"},
    {What::kResetting, "No files found in debug! Resetting"},
    {What::kInactive, "LC thread: exit due to no activity %d"},
    {What::kExited, "Exiting socket thread"},

    {What::kNotConnected, "data upload connection not done con = %d", Server::kDataUpload},
    {What::kNotConnected, "relay server connection not done con = %d", Server::kRelay},
    {What::kKindReached, "Bypassing random delay values for all log types"},
    {What::kKindReached, "Bypassing random delay values for log type %d"},
    {What::kKindReached, "Time is good for log type %d, checking to send, delay %d curr %d"},
    {What::kListed, "%d not read only files found for filetype %d at directory %s"},
    {What::kStillOpen, "Attempt to upload %s still in Access"},
    {What::kFileChosen, "Filename %s is not read only"},
    {What::kPause, "Sleeping %d seconds before next file send"},
    {What::kSent, "Sending %s went okay"},
    {What::kNotMarked, "Failed to make %s read-only"},
    {What::kGivenUp, "Send %s failed. Sleeping %d seconds."},
    {What::kSendError, "Send error"},
    {What::kNoMemory, "Not enough memory to send %s"},

    {What::kConnecting, "Connecting to %s:%d"},
    {What::kConnectSent, "Data upload client connection sent", Server::kDataUpload},
    {What::kConnectSent, "Relay server client connection sent", Server::kRelay},
    {What::kConnectFailed, "Data upload client connection failed", Server::kDataUpload},
    {What::kConnectFailed, "Relay server client connection failed", Server::kRelay},
    {What::kConnected, "Connect event from data upload srv", Server::kDataUpload},
    {What::kConnected, "Connect event from relay srv", Server::kRelay},
    {What::kClosed, "Data upload connection closed", Server::kDataUpload},
    {What::kClosed, "Relay server connection closed", Server::kRelay},
    {What::kServerStarted, "Mongoose server started."},
    {What::kNotStarted, "Failed to start proxy client."},
    {What::kNotStarted, "Serving thread has not stopped, not connecting."},
    {What::kTerminating, "Terminating LogConsumer client - DataUpLoad", Server::kDataUpload},
    {What::kTerminating, "Terminating LogConsumer client - RelayServer", Server::kRelay},
    {What::kWriting, "Writing file to mg_write"},
    {What::kWritten, "mg_write returned %d, file length is %d"},
    {What::kGoodStatus, "Got 200 good resp from server"},
    {What::kBadStatus, "Got bad code from server: %s %s"},
    {What::kNoAnswer, "Invalid URI in server response"},
    {What::kTimeout, "Timeout for send. serverType = %d"},
    {What::kVerdict, "Good response for send"},
    {What::kVerdict, "Bad response for send"},

    {What::kWifiUp, "PushpullLC thread: wifi now associated"},
    {What::kWifiDown, "PushpullLC thread: wifi is not associated"},
    {What::kConfiguration, "PushpullLC thread: Setting aapStateStr = %s"},
    {What::kConfiguration, "PushpullLC thread: Setting system id %s"},
    {What::kConfiguration, "PushpullLC thread: updating system clock values"},
    {What::kConfiguration, "Manually getting data from pushpull, bad state"},
    {What::kTrouble, "PushpullLC thread: Unable to allocate push-pull API"},
    {What::kTrouble, "PushpullLC thread: Unable to open message queue (%d)"},
    {What::kTrouble, "PushpullLC thread: Unable to register with pushpull"},
    {What::kTrouble, "PushpullLC thread: Unable to subscribe for pushpull info"},
    {What::kTrouble, "PushpullLC thread: Unable to get initial pushpull info"},
    {What::kTrouble, "PushpullLC thread: reset due to no activity"},
    {What::kConfigurationEnded, "PushpullLC thread: Exiting thread"},
};

constexpr std::string_view kDigits = "0123456789abcdef";

// Where the field at the front of `text` ends: at the last place where `literal` stands, or at the
// end when the format has nothing more. Later literals are shorter than what is left, so a text
// with two fields can come out unevenly divided, never wrong in its shape.
std::size_t field_end(char type, std::string_view literal, bool last, std::string_view text) {
  if (type != 's') {
    const std::size_t sign = text.substr(0, 1) == "-" ? 1 : 0;
    return std::min(text.find_first_not_of(kDigits, sign), text.size());
  }
  if (last && literal.empty()) return text.size();
  if (last) return text.size() >= literal.size() ? text.size() - literal.size() : text.size();
  const std::size_t found = text.rfind(literal);
  return found == std::string_view::npos ? text.size() : found;
}

}  // namespace

std::optional<std::vector<std::string>> match_format(std::string_view format,
                                                     std::string_view text) {
  std::vector<std::string> fields;
  for (;;) {
    const std::size_t percent = std::min(format.find('%'), format.size());
    const std::string_view literal = format.substr(0, percent);
    if (text.substr(0, literal.size()) != literal) return std::nullopt;
    text.remove_prefix(literal.size());
    if (percent == format.size()) break;
    const char type = percent + 1 < format.size() ? format[percent + 1] : 's';
    format.remove_prefix(std::min(percent + 2, format.size()));
    const std::size_t next = std::min(format.find('%'), format.size());
    const std::size_t end = field_end(type, format.substr(0, next), next == format.size(), text);
    if (end == 0 && type != 's') return std::nullopt;
    fields.emplace_back(text.substr(0, end));
    text.remove_prefix(end);
  }
  if (!text.empty()) return std::nullopt;
  return fields;
}

Event interpret(std::string_view text) {
  for (const Known& known : kKnown) {
    if (auto fields = match_format(known.format, text)) {
      return {known.what, known.server, std::move(*fields)};
    }
  }
  return {};
}

std::vector<std::string> known_formats() {
  std::vector<std::string> formats;
  for (const Known& known : kKnown)
    formats.emplace_back(known.format);
  return formats;
}

}  // namespace lctimeline
