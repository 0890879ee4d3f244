// What the person at the terminal sees.
#ifndef LAB_DRIVER_DISPLAY_H
#define LAB_DRIVER_DISPLAY_H

#include <chrono>
#include <string>
#include <vector>

#include "lab/driver/scoreboard.h"

namespace lab {

/// On a terminal a table with a progress bar that is drawn over itself; otherwise plain lines, one
/// for each event and one at least every few seconds.
class Display {
 public:
  explicit Display(bool terminal);

  void event(const std::string& text);
  /// To be called often; draws when it is time to.
  void refresh(const Scoreboard& board);
  /// What every file came to, and the counts. @return whether everything is as it is to be.
  bool summary(const Scoreboard& board, unsigned starts, unsigned failed_starts);

 private:
  using Clock = std::chrono::steady_clock;
  std::string clock() const;
  void draw(const Scoreboard& board);

  const bool terminal_;
  const Clock::time_point started_ = Clock::now();
  Clock::time_point last_line_ = started_;
  std::string last_event_;
  unsigned drawn_lines_ = 0;
};

/// `done` of `all` as a bar of `width` characters between brackets.
std::string progress_bar(std::size_t done, std::size_t all, std::size_t width);

/// The table's lines, without newlines.
std::vector<std::string> table(const Scoreboard& board);

}  // namespace lab

#endif
