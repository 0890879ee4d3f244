#include "lab/driver/display.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "lab/driver/kinds.h"

namespace lab {

namespace {

std::string verdict_on(const FileState& state) {
  if (!state.intact) return state.mode == 0 ? "IS GONE" : "WAS CHANGED";
  if (!state.problem.empty()) return "ARRIVED WRONG: " + state.problem;
  if (!state.to_be_sent()) {
    return state.right() ? "left alone, " + state.file.why_not : "WAS SENT OR CHANGED";
  }
  if (state.accepted == 0) return "DID NOT ARRIVE";
  if (state.mode != 0400) return "ARRIVED, BUT IS NOT MARKED";
  return state.accepted == 1 ? "arrived, every byte, 0400"
                             : "arrived " + std::to_string(state.accepted) + " times, 0400";
}

std::string octal(mode_t mode) {
  std::ostringstream text;
  text << std::oct << std::setw(4) << std::setfill('0') << mode;
  return text.str();
}

std::string counted(std::size_t count, const std::string& thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

int longest_path(const std::vector<FileState>& files) {
  std::size_t longest = std::string(kDirectoryOfNoDevice).size();
  for (const FileState& state : files)
    longest = std::max(longest, state.file.path.size());
  return static_cast<int>(longest);
}

}  // namespace

Display::Display(bool terminal) : terminal_(terminal) {}

void Display::event(const std::string& text) {
  last_event_ = text;
  if (terminal_) return;
  last_line_ = Clock::now();
  std::cout << clock() << "  " << text << std::endl;
}

void Display::refresh(const Scoreboard& board) {
  const auto now = Clock::now();
  if (terminal_) {
    if (now - last_line_ < std::chrono::milliseconds(250)) return;
    draw(board);
  } else {
    if (now - last_line_ < std::chrono::seconds(4)) return;
    std::cout << clock() << "  " << board.sent() << " of " << board.to_be_sent()
              << " files sent and marked " << progress_bar(board.sent(), board.to_be_sent(), 20)
              << std::endl;
  }
  last_line_ = now;
}

bool Display::summary(const Scoreboard& board, unsigned starts, unsigned failed_starts) {
  if (terminal_) draw(board);
  unsigned right = 0;
  unsigned uploads = 0;
  unsigned duplicates = 0;
  const std::vector<FileState> files = board.files();
  const int width = longest_path(files);
  std::cout << '\n';
  for (const FileState& state : files) {
    std::cout << "  " << std::left << std::setw(width) << state.file.path << "  "
              << octal(state.mode) << "  " << verdict_on(state) << '\n';
    if (state.right()) ++right;
    uploads += state.accepted;
    duplicates += state.accepted > 1 ? state.accepted - 1 : 0;
  }
  std::cout << "  " << std::left << std::setw(width) << kDirectoryOfNoDevice << "     -  kind "
            << kKindWithoutDirectory << ", a directory that no device has: nothing to send\n";
  const bool good = right == files.size() && board.unknown_uploads() == 0 && failed_starts == 0;
  std::cout << "\nSeeded " << counted(files.size(), "file") << ", " << board.to_be_sent()
            << " of them to be sent. Uploaded " << uploads << ", marked " << board.sent()
            << ", duplicates " << duplicates << ", uploads of unknown bytes "
            << board.unknown_uploads() << ".\nThe service was started " << counted(starts, "time")
            << " in " << clock() << (failed_starts == 0 ? "" : " AND FAILED") << ".\n"
            << (good ? "Every byte matched, every file stands as it should."
                     : "NOT everything is as it should be, see above.")
            << std::endl;
  return good;
}

std::string Display::clock() const {
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started_).count();
  std::ostringstream text;
  text << seconds / 60 << ':' << std::setw(2) << std::setfill('0') << seconds % 60;
  return text.str();
}

void Display::draw(const Scoreboard& board) {
  std::vector<std::string> lines = table(board);
  lines.push_back("");
  lines.push_back(clock() + "  " + progress_bar(board.sent(), board.to_be_sent(), 40) + " " +
                  std::to_string(board.sent()) + " of " + std::to_string(board.to_be_sent()));
  lines.push_back(last_event_);
  if (drawn_lines_ > 0) std::cout << "\x1b[" << drawn_lines_ << "A";
  std::cout << "\x1b[?7l";  // a line longer than the terminal is cut off, or the count is wrong
  for (const std::string& line : lines)
    std::cout << "\x1b[2K" << line << '\n';
  std::cout << "\x1b[?7h" << std::flush;
  drawn_lines_ = static_cast<unsigned>(lines.size());
}

std::string progress_bar(std::size_t done, std::size_t all, std::size_t width) {
  const std::size_t filled = all == 0 ? width : std::min(done, all) * width / all;
  return "[" + std::string(filled, '#') + std::string(width - filled, '.') + "]";
}

std::vector<std::string> table(const Scoreboard& board) {
  const auto row = [](const std::string& kind, const std::string& waiting, const std::string& sent,
                      const std::string& answer) {
    std::ostringstream line;
    line << std::left << std::setw(14) << kind << std::right << std::setw(8) << waiting
         << std::setw(6) << sent << "  " << answer;
    return line.str();
  };
  std::vector<std::string> lines = {row("kind", "waiting", "sent", "last answer")};
  for (const KindState& kind : board.kinds()) {
    lines.push_back(
        row(kind.name, std::to_string(kind.waiting), std::to_string(kind.sent), kind.last_answer));
  }
  lines.push_back(row(kKindWithoutDirectory, "-", "-", "its directory cannot exist"));
  return lines;
}

}  // namespace lab
