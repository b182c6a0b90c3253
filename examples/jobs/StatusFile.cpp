#include "StatusFile.h"

#include "../inspect/EntityJson.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <string_view>
#include <unistd.h>

namespace jobs {

namespace {

// A new file beside the one whose name it will get; gone again unless it got that name.
class NewFile {
 public:
   explicit NewFile(const std::string& path)
      : path_(path + '.' + std::to_string(::getpid()) + ".new"),
        descriptor_(::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)) {}
   NewFile(const NewFile&) = delete;
   NewFile& operator=(const NewFile&) = delete;
   ~NewFile() {
      if (descriptor_ >= 0) {
         ::close(descriptor_);
         ::unlink(path_.c_str()); // fails when it has its name, as it should
      }
   }

   bool filledWith(std::string_view text) const {
      while (descriptor_ >= 0 && !text.empty()) {
         const ssize_t written = ::write(descriptor_, text.data(), text.size());
         if (written < 0 && errno != EINTR) {
            return false;
         }
         text.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
      }
      return descriptor_ >= 0;
   }
   bool named(const std::string& path) const { return ::rename(path_.c_str(), path.c_str()) == 0; }

 private:
   const std::string path_;
   const int descriptor_;
};

} // namespace

void writeStatus(const std::string& path,
                 const Vel::Ptr<Zor::ChildProcessTrackerSm const>& tracker) {
   try {
      const std::string text = entityJson(*Vel::GenericIf::of(tracker)).dump(2) + '\n';
      const NewFile file(path);
      if (!file.filledWith(text) || !file.named(path)) {
         std::cerr << "jobs: " << path << ": " << std::strerror(errno) << '\n';
      }
   } catch (const std::exception& problem) {
      std::cerr << "jobs: " << path << ": " << problem.what() << '\n';
   }
}

} // namespace jobs
