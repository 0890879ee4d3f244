// What a message of the service says.
#ifndef TOOLS_LCTIMELINE_EVENT_H
#define TOOLS_LCTIMELINE_EVENT_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lctimeline {

enum class What {
  kOther,  ///< nothing that the picture shows
  // start and end
  kStarted,
  kSignal,  ///< fields: number
  kCrashed,
  kResetting,
  kInactive,
  kExited,
  // the pass
  kNotConnected,  ///< server: it was found without a connection
  kKindReached,   ///< the next kind's slot is open
  kListed,        ///< fields: waiting, file type, directory
  kStillOpen,     ///< fields: path
  kFileChosen,    ///< fields: path
  kPause,         ///< fields: seconds before the file goes out
  kSent,          ///< fields: path
  kNotMarked,     ///< fields: path
  kGivenUp,       ///< fields: path, seconds of back-off
  kSendError,     ///< one attempt has failed
  kNoMemory,      ///< fields: path
  // connections
  kConnecting,     ///< fields: host, port
  kConnectSent,    ///< server
  kConnectFailed,  ///< server
  kConnected,      ///< server
  kClosed,         ///< server
  kServerStarted,
  kNotStarted,   ///< a connection could not be begun
  kTerminating,  ///< server
  kWriting,
  kWritten,  ///< fields: bytes taken, bytes of the request
  kGoodStatus,
  kBadStatus,  ///< fields: status, reason
  kNoAnswer,   ///< bytes that are no answer
  kTimeout,    ///< fields: server
  kVerdict,    ///< the sender has noticed how it ended
  // configuration thread
  kWifiUp,
  kWifiDown,
  kConfiguration,  ///< worth a mark
  kTrouble,        ///< worth a red mark
  kConfigurationEnded,
};

enum class Server { kDataUpload, kRelay };

struct Event {
  What what = What::kOther;
  std::optional<Server> server;
  std::vector<std::string> fields;  ///< what stands at the %s and %d of the message's format
};

/// What the service's message says; kOther for what the picture has no use for.
Event interpret(std::string_view text);

/// The formats of the messages that interpret() knows, for a test to look for them in the service.
std::vector<std::string> known_formats();

/// The fields of a text that was printed with a format of %s, %d and %x; a %s that may be followed
/// by its own continuation ends as late as possible. Nothing when it was printed with another.
std::optional<std::vector<std::string>> match_format(std::string_view format,
                                                     std::string_view text);

}  // namespace lctimeline

#endif
