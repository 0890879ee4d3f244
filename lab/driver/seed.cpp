#include "lab/driver/seed.h"

#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <stdexcept>

#include "lab/support/record.h"

namespace {

using lab::Kind;
using lab::SeededFile;

const Kind& kind_named(const std::string& name) {
  if (const Kind* const kind = lab::find_kind(name)) return *kind;
  throw std::runtime_error("no such kind: " + name + "; there are" + lab::kind_names());
}

// Log lines such as a controller writes; no two files hold the same.
std::string log_text(const Kind& kind, unsigned lines) {
  std::ostringstream text;
  for (unsigned line = 0; line < lines; ++line) {
    text << "2026-02-03T09:" << std::setfill('0') << std::setw(2) << line / 60 % 60 << ':'
         << std::setw(2) << line % 60 << "Z " << kind.name << "[412]: zone " << line % 8
         << " temperature " << 20 + line * 7 % 9 << '.' << line * 31 % 10 << " setpoint "
         << 18 + line % 5 << " valve " << line * 13 % 101 << "% cycle " << line << '\n';
  }
  return text.str();
}

class Seeder {
 public:
  explicit Seeder(const lab::SeedSettings& settings) : settings_(settings) {}

  std::vector<SeededFile> run() {
    for (const Kind& kind : lab::all_kinds()) {
      std::filesystem::create_directories(kind.directory);
      if (settings_.examples && wanted(kind)) add_example(kind);
    }
    if (settings_.examples) add_odd_ones();
    for (const std::string& path : settings_.own_files) {
      const std::string name = std::filesystem::path(path).filename();
      add(kind_named(settings_.own_kind), name, lab::read_file(path), 0644, "");
    }
    return std::move(files_);
  }

 private:
  bool wanted(const Kind& kind) const {
    const auto& names = settings_.kinds;
    return names.empty() || std::find(names.begin(), names.end(), kind.name) != names.end();
  }

  void add_example(const Kind& kind) {
    const auto lines = static_cast<unsigned>(400 + 150 * files_.size());
    add(kind, kind.example + ".gz", lab::gzip(log_text(kind, lines)), 0644, "");
  }

  void add_odd_ones() {
    const Kind& debug = kind_named("Debug");
    if (!wanted(debug)) return;
    add(debug, "held_open.gz", lab::gzip("written to for a while yet\n"), 0644, "");
    add(debug, "sent_before.gz", lab::gzip("sent yesterday\n"), 0400, "mode 0400: sent before");
    add(debug, "unfinished.gz", lab::gzip("not yet released\n"), 0600, "mode 0600 is not 0644");
    add(debug, "group_writable.gz", lab::gzip("writable by many\n"), 0664, "mode 0664 is not 0644");
    add(debug, "notes.txt", "no archive\n", 0644, "no .gz in its name");
  }

  void add(const Kind& kind, const std::string& name, std::string bytes, mode_t mode,
           std::string why_not) {
    const std::string path = kind.directory + "/" + name;
    lab::write_file(path, bytes);
    if (chmod(path.c_str(), mode) != 0) throw std::runtime_error("cannot set the mode of " + path);
    files_.push_back({kind, path, std::move(bytes), mode, std::move(why_not)});
  }

  const lab::SeedSettings& settings_;
  std::vector<SeededFile> files_;
};

}  // namespace

std::vector<lab::SeededFile> lab::seed(const SeedSettings& settings) {
  for (const std::string& name : settings.kinds)
    kind_named(name);
  return Seeder(settings).run();
}

std::string lab::gzip(const std::string& text) {
  constexpr int kGzipWindow = 15 + 16;
  constexpr int kMemoryLevel = 8;
  z_stream stream = {};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindow, kMemoryLevel,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::runtime_error("cannot compress");
  }
  std::string input = text;
  std::string output(deflateBound(&stream, input.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = reinterpret_cast<Bytef*>(output.data());
  stream.avail_out = static_cast<uInt>(output.size());
  deflate(&stream, Z_FINISH);
  output.resize(stream.total_out);
  deflateEnd(&stream);
  return output;
}
