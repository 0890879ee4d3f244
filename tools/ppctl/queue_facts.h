// What there is to know about the machine's POSIX message queues.
#ifndef TOOLS_PPCTL_QUEUE_FACTS_H
#define TOOLS_PPCTL_QUEUE_FACTS_H

#include <mqueue.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace ppctl {

inline constexpr char kQueueFolder[] = "/dev/mqueue";
inline constexpr char kServiceQueue[] = "/log_consumer";
/// The log consumer's receive queue: messages, and bytes of the longest one.
inline constexpr int kServiceMessages = 64;
inline constexpr int kServiceMessageSize = 262144;

struct QueueFacts {
  std::string name;
  int error = 0;                             ///< errno of opening it; ENOENT: there is none
  std::optional<mode_t> mode;                ///< permission bits
  uid_t owner = 0;                           ///< valid with the mode
  std::optional<struct mq_attr> attributes;  ///< unless it may not be opened
};

/// The names of all queues, each with its "/", in order; none when the folder is not the kernel's
/// list of queues (type mqueue is not mounted there).
std::optional<std::vector<std::string>> list_queues(const std::string& folder);

QueueFacts look_at_queue(const std::string& name);

/// Tries whether this user can make such a queue here and now, the way the service does: a queue
/// under a name of its own is made and removed at once.
/// @return 0, or why not: EINVAL (fs.mqueue limits), EMFILE (RLIMIT_MSGQUEUE), ...
int try_queue(long messages, long message_size);

/// What to do about that error.
std::string advice_for_queue_error(int error);

/// "root", or the number of a user without a name.
std::string user_name(uid_t user);

/// "0660"
std::string mode_text(mode_t mode);

}  // namespace ppctl

#endif
