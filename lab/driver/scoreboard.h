// What became of each seeded file, judged from the server's record and the file itself alone.
#ifndef LAB_DRIVER_SCOREBOARD_H
#define LAB_DRIVER_SCOREBOARD_H

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "lab/driver/seed.h"
#include "lab/upload_server/upload_server.h"

namespace lab {

/// A seeded file and what is known of it.
struct FileState {
  SeededFile file;
  unsigned accepted = 0;  ///< uploads of exactly these bytes that were answered with 200
  std::string problem;    ///< what is wrong with one of those uploads
  mode_t mode = 0;        ///< 0: the file is gone
  bool intact = true;     ///< it holds what was seeded

  bool to_be_sent() const { return file.why_not.empty(); }
  bool sent() const { return accepted > 0 && mode == 0400 && intact && problem.empty(); }
  /// As it is to be at the end: sent, or left alone.
  bool right() const {
    return to_be_sent() ? sent() : accepted == 0 && mode == file.mode && intact;
  }
};

/// One row of the table on the screen.
struct KindState {
  std::string name;
  unsigned waiting = 0;
  unsigned sent = 0;
  std::string last_answer;
};

/// All methods may be called from any thread.
class Scoreboard {
 public:
  /// @param sys_id  what the service is to give as SenderId
  Scoreboard(const std::vector<SeededFile>& files, std::string sys_id);

  /// Takes note of an upload. @return the path of the file that it was, or "" for unknown bytes.
  std::string note(const UploadReport& report);

  /// Looks at the files' modes. Opens none: a file that is open is in use, and would not be sent.
  void look();
  /// Looks at the contents too, once the service has ended.
  void look_inside();

  std::vector<FileState> files() const;
  std::vector<KindState> kinds() const;
  unsigned unknown_uploads() const;
  std::size_t to_be_sent() const;
  std::size_t sent() const;

 private:
  std::string wrong_with(const FileState& state, const Upload& upload) const;

  mutable std::mutex mutex_;
  std::vector<FileState> files_;
  std::vector<std::pair<std::string, std::string>> last_answers_;  // kind, answer
  unsigned unknown_ = 0;
  const std::string sys_id_;
};

}  // namespace lab

#endif
