// Judges deliveries by what can be proved from outside: the bytes that came to a server, the
// answers that it gave, the files, and syslog. It shares no code with the service and believes
// nothing that the service says about itself.
#ifndef TESTS_SUPPORT_DELIVERY_ORACLE_H
#define TESTS_SUPPORT_DELIVERY_ORACLE_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/journal.h"

namespace test_support {

/// One connection as its server saw it.
struct ConnectionRecord {
  struct Answer {
    int status;
    std::size_t received;  ///< bytes that had come when the answer was given
  };
  std::string received;         ///< decrypted, from the first byte on
  std::vector<Answer> answers;  ///< the final ones, in order; the n-th answers the n-th upload
};

class DeliveryOracle {
 public:
  /// From now on the file may change its mode from 0644 to 0400, and nothing else.
  void watch(const std::string& path);

  /// Compares everything with everything.
  ///  - No false mark: a file stands at 0400 only if its very bytes had come whole, under its name
  ///    where the server is told names, and had been answered 200.
  ///  - No loss: every file is the same file with the same bytes, at 0644 or at 0400.
  ///  - Truth: syslog says exactly of the marked files that they went out.
  /// @return what is wrong, a line each; empty when nothing is.
  std::vector<std::string> complaints(const std::vector<ConnectionRecord>& connections,
                                      const Journal& journal) const;

  /// How many whole copies of the file came, whatever they were answered.
  std::size_t copies(const std::vector<ConnectionRecord>& connections,
                     const std::string& path) const;

 private:
  struct File {
    std::string path;
    std::string name;
    std::string contents;
    ino_t inode;
  };

  const File& file(const std::string& path) const;

  std::vector<File> files_;
};

}  // namespace test_support

#endif
