#include <algorithm>
#include <cerrno>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tools/ppctl/queue_facts.h"
#include "tools/ppctl/verbs.h"

namespace ppctl {

namespace {

// "/NAME", also for "NAME" and "/dev/mqueue/NAME".
std::string queue_name(const std::string& text) {
  const std::string folder = std::string(kQueueFolder) + "/";
  if (text.rfind(folder, 0) == 0) return text.substr(folder.size() - 1);
  return text.rfind('/', 0) == 0 ? text : "/" + text;
}

// For one that cannot be, the kernel says that access is denied.
bool can_be_queue(const std::string& name) {
  return name.size() > 1 && name != "/." && name != "/.." && name.find('/', 1) == std::string::npos;
}

std::vector<QueueFacts> named_queues(const std::vector<std::string>& names) {
  std::vector<QueueFacts> queues;
  for (const std::string& name : names) {
    if (!can_be_queue(queue_name(name))) {
      throw Failure(Status::kNoSuchNode,
                    "no such queue: " + name + ": no queue can have this name");
    }
    queues.push_back(look_at_queue(queue_name(name)));
    const int error = queues.back().error;
    if (error != 0 && error != EACCES) {
      throw Failure(Status::kNoSuchNode, with_reason("no such queue: " + name, error));
    }
  }
  return queues;
}

// All queues, or where the kernel does not list them, those that are known of.
std::vector<QueueFacts> existing_queues(const Context& context) {
  auto names = list_queues(kQueueFolder);
  if (!names) {
    context.output.note(std::string(kQueueFolder) +
                        " is not mounted: only the queues of the store and the log consumer");
    names = {"/pushpull" + context.options.suffix, kServiceQueue};
  }
  std::vector<QueueFacts> queues;
  for (const std::string& name : *names) {
    QueueFacts facts = look_at_queue(name);
    if (facts.error != ENOENT) queues.push_back(std::move(facts));
  }
  return queues;
}

Json as_json(const QueueFacts& queue) {
  Json object = {{"name", queue.name}};
  if (queue.attributes) {
    object["messages"] = queue.attributes->mq_curmsgs;
    object["max_messages"] = queue.attributes->mq_maxmsg;
    object["message_size"] = queue.attributes->mq_msgsize;
  }
  if (queue.mode) {
    object["mode"] = mode_text(*queue.mode);
    object["owner"] = user_name(queue.owner);
  }
  return object;
}

std::string number_or_dash(const QueueFacts& queue, long mq_attr::*member) {
  return queue.attributes ? std::to_string((*queue.attributes).*member) : "-";
}

std::string table(const std::vector<QueueFacts>& queues) {
  std::size_t width = 5;
  for (const QueueFacts& queue : queues)
    width = std::max(width, queue.name.size());
  std::ostringstream text;
  const auto line = [&text, width](const std::string& name, const std::string& messages,
                                   const std::string& most, const std::string& size,
                                   const std::string& mode, const std::string& owner) {
    text << std::left << std::setw(static_cast<int>(width)) << name << std::right << std::setw(10)
         << messages << std::setw(6) << most << std::setw(9) << size << "  " << std::left
         << std::setw(6) << mode << owner << '\n';
  };
  line("QUEUE", "MESSAGES", "MAX", "SIZE", "MODE", "OWNER");
  for (const QueueFacts& queue : queues) {
    line(queue.name, number_or_dash(queue, &mq_attr::mq_curmsgs),
         number_or_dash(queue, &mq_attr::mq_maxmsg), number_or_dash(queue, &mq_attr::mq_msgsize),
         queue.mode ? mode_text(*queue.mode) : "-", queue.mode ? user_name(queue.owner) : "-");
  }
  return text.str();
}

std::string fit_text(int error) {
  const std::string size =
      std::to_string(kServiceMessages) + " x " + std::to_string(kServiceMessageSize);
  if (error == 0) return size + " fits here\n";
  return size + " does not fit here: " + advice_for_queue_error(error) + "\n";
}

Json fit_json(int error) {
  Json object = {{"max_messages", kServiceMessages},
                 {"message_size", kServiceMessageSize},
                 {"fits", error == 0}};
  if (error != 0) object["advice"] = advice_for_queue_error(error);
  return object;
}

}  // namespace

Status run_queues(const Context& context) {
  const auto& names = context.options.arguments;
  const auto queues = names.empty() ? existing_queues(context) : named_queues(names);
  const int error = try_queue(kServiceMessages, kServiceMessageSize);
  if (context.options.json) {
    for (const QueueFacts& queue : queues)
      context.output.document(as_json(queue));
    context.output.document(fit_json(error));
  } else {
    context.output.text(table(queues) + fit_text(error));
  }
  return Status::kDone;
}

}  // namespace ppctl
